#!/usr/bin/env bash
# SoftHSM2 tokens for the tests, in BUILD_DIR/softhsm (never the machine's own token store):
#   zorvo-a  rsa1 (RSA-2048, self-signed, id 01), rsa2 (RSA-2048 from the test CA, id 02),
#            ec1 (P-256, id 03)
#   zorvo-b  rsa1, and the CA certificate without a CKA_ID (which makes the token unreadable)
#   zorvo-c  rsa1's certificate under id 04, with rsa2's private key under that id
#   zorvo-g  empty: the test provider puts its GOST identities on it
# plus SoftHSM2's free slot. BUILD_DIR/softhsm/env holds KEY=value lines for the tests.
# Idempotent while this script is unchanged; several test processes may ask at once.
set -euo pipefail
build=$(mkdir -p "$1" && cd "$1" && pwd)
dir=$build/softhsm
pin=1234
module=/usr/lib/softhsm/libsofthsm2.so
[ -f "$module" ] || { echo "token.sh: $module missing; run scripts/setup.sh" >&2; exit 1; }

exec 9>"$build/softhsm.lock"
flock 9
stamp=$(sha256sum "$0" | cut -d' ' -f1)
[ -f "$dir/env" ] && [ "$(cat "$dir/stamp" 2>/dev/null)" = "$stamp" ] && exit 0

rm -rf "$dir" && mkdir -p "$dir/tokens" && cd "$dir"
export SOFTHSM2_CONF=$dir/softhsm2.conf
printf 'directories.tokendir = %s/tokens\nobjectstore.backend = file\nlog.level = ERROR\n' "$dir" >softhsm2.conf
cat >openssl.cnf <<'EOF'
[req]
distinguished_name = dn
string_mask = utf8only
[dn]
[ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
[leaf]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature,nonRepudiation
EOF

q() { local out; out=$("$@" 2>&1) || { echo "token.sh: $* failed: $out" >&2; exit 1; }; }
key() { q openssl genpkey -out "$1.key.pem" "${@:2}"; q openssl pkey -in "$1.key.pem" -pubout -out "$1.pub.pem"; }
cert() { # name subject serial extensions [CA]
  local sign=(-key "$1.key.pem")
  if [ -n "${5:-}" ]; then
    q openssl req -config openssl.cnf -new -utf8 -key "$1.key.pem" -subj "$2" -out "$1.csr"
    q openssl x509 -req -in "$1.csr" -CA "$5.crt.pem" -CAkey "$5.key.pem" -set_serial "$3" -days 3650 \
      -extfile openssl.cnf -extensions "$4" -out "$1.crt.pem"
  else
    q openssl req -config openssl.cnf -new -x509 -utf8 "${sign[@]}" -subj "$2" -set_serial "$3" -days 3650 \
      -extensions "$4" -out "$1.crt.pem"
  fi
  q openssl x509 -in "$1.crt.pem" -outform DER -out "$1.crt.der"
}
key ca -algorithm RSA -pkeyopt rsa_keygen_bits:2048
cert ca "/C=RU/O=Zorvo Test/CN=Zorvo Test CA" 0x1000 ca
key rsa1 -algorithm RSA -pkeyopt rsa_keygen_bits:2048
cert rsa1 "/C=RU/O=Zorvo Test/CN=Zorvo RSA One" 0x1001 leaf
key rsa2 -algorithm RSA -pkeyopt rsa_keygen_bits:2048
cert rsa2 "/C=RU/O=Zorvo Test/OU=Тестовый отдел/CN=Zorvo RSA Two" 0x1002 leaf ca
key ec1 -algorithm EC -pkeyopt ec_paramgen_curve:P-256
cert ec1 "/C=RU/O=Zorvo Test/CN=Zorvo EC One" 0x1003 leaf

p11() { q pkcs11-tool --module "$module" --token-label "$1" --login --pin "$pin" "${@:2}"; }
pair() { # token name id
  p11 "$1" --write-object "$2.key.pem" --type privkey --id "$3" --label "$2" --usage-sign
  p11 "$1" --write-object "$2.pub.pem" --type pubkey --id "$3" --label "$2"
  p11 "$1" --write-object "$2.crt.der" --type cert --id "$3" --label "$2"
}
for t in zorvo-a zorvo-b zorvo-c zorvo-g; do q softhsm2-util --init-token --free --label "$t" --so-pin "$pin" --pin "$pin"; done
pair zorvo-a rsa1 01
pair zorvo-a rsa2 02
pair zorvo-a ec1 03
pair zorvo-b rsa1 01
p11 zorvo-b --write-object ca.crt.der --type cert --label test-ca
p11 zorvo-c --write-object rsa1.crt.der --type cert --id 04 --label mismatch
p11 zorvo-c --write-object rsa2.key.pem --type privkey --id 04 --label mismatch --usage-sign

cat >env <<EOF
SOFTHSM2_CONF=$dir/softhsm2.conf
MODULE=$module
PIN=$pin
DIR=$dir
EOF
echo "$stamp" >stamp
