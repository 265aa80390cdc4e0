#!/usr/bin/env bash
# Builds the SoftHSM2 tokens that the integration tests use, inside the build tree:
#   BUILD_DIR/softhsm/softhsm2.conf   private configuration (never the machine's default)
#   BUILD_DIR/softhsm/env             KEY=value lines, one per line, no quoting
#   BUILD_DIR/softhsm/*.pem|*.der     the keys and certificates that were loaded
# Token "zorvo-test": rsa1 (RSA-2048, self-signed, id 01), rsa2 (RSA-2048 key "rsa2-key" and
# certificate "rsa2-cert" from the test CA, id 02), ec1 (P-256, self-signed, id 03), the CA
# certificate "test-ca" with an empty CKA_ID, and a data object "data1".
# Token "zorvo-test2": rsa1 and ec1 only, so certificate enumeration succeeds there.
# SoftHSM2 renumbers slots at every initialisation: select tokens by label.
# Idempotent: nothing is redone while the stamp matches this script.
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 BUILD_DIR" >&2
  exit 2
fi
build=$(mkdir -p "$1" && cd "$1" && pwd)
dir=$build/softhsm
pin=1234
so_pin=1234
label=zorvo-test
label2=zorvo-test2

for tool in softhsm2-util pkcs11-tool openssl flock sha256sum; do
  if ! command -v "$tool" >/dev/null; then
    echo "softhsm_token: $tool is missing; run scripts/setup.sh" >&2
    exit 1
  fi
done
module=""
for m in /usr/lib/softhsm/libsofthsm2.so /usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so; do
  [ -f "$m" ] && module=$m && break
done
if [ -z "$module" ]; then
  echo "softhsm_token: libsofthsm2.so not found; run scripts/setup.sh" >&2
  exit 1
fi

# Several test processes may ask at once: one builds, the others wait and reuse.
exec 9>"$build/softhsm.lock"
flock 9

stamp=$(sha256sum "$0" | cut -d' ' -f1)
if [ -f "$dir/stamp" ] && [ "$(cat "$dir/stamp")" = "$stamp" ] && [ -f "$dir/env" ]; then
  exit 0
fi

rm -rf "$dir"
mkdir -p "$dir/tokens"
cd "$dir"
export SOFTHSM2_CONF=$dir/softhsm2.conf
cat >softhsm2.conf <<EOF
directories.tokendir = $dir/tokens
objectstore.backend = file
log.level = ERROR
slots.removable = false
EOF

cat >openssl.cnf <<'EOF'
[req]
distinguished_name = dn
string_mask = utf8only
[dn]
[ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,digitalSignature,nonRepudiation,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[leaf]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature,nonRepudiation
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
EOF

quiet() {
  local out
  if ! out=$("$@" 2>&1); then
    echo "softhsm_token: failed: $*" >&2
    echo "$out" >&2
    exit 1
  fi
}

genkey() { # name algorithm-options...
  quiet openssl genpkey -out "$1.key.pem" "${@:2}"
  quiet openssl pkey -in "$1.key.pem" -pubout -out "$1.pub.pem"
}

der() { # name
  quiet openssl x509 -in "$1.crt.pem" -outform DER -out "$1.crt.der"
}

selfsigned() { # name subject serial extensions
  quiet openssl req -config openssl.cnf -new -x509 -utf8 -key "$1.key.pem" -subj "$2" -set_serial "$3" \
    -days 3650 -sha256 -extensions "$4" -out "$1.crt.pem"
  der "$1"
}

genkey ca -algorithm RSA -pkeyopt rsa_keygen_bits:2048
selfsigned ca "/C=RU/O=Zorvo Test/CN=Zorvo Test CA" 0x1000 ca
genkey rsa1 -algorithm RSA -pkeyopt rsa_keygen_bits:2048
selfsigned rsa1 "/C=RU/O=Zorvo Test/CN=Zorvo RSA One" 0x1001 leaf
genkey rsa2 -algorithm RSA -pkeyopt rsa_keygen_bits:2048
quiet openssl req -config openssl.cnf -new -utf8 -key rsa2.key.pem \
  -subj "/C=RU/O=Zorvo Test/OU=Тестовый отдел/CN=Zorvo RSA Two" -out rsa2.csr
quiet openssl x509 -req -in rsa2.csr -CA ca.crt.pem -CAkey ca.key.pem -set_serial 0x1002 -days 3650 -sha256 \
  -extfile openssl.cnf -extensions leaf -out rsa2.crt.pem
der rsa2
genkey ec1 -algorithm EC -pkeyopt ec_paramgen_curve:P-256
selfsigned ec1 "/C=RU/O=Zorvo Test/CN=Zorvo EC One" 0x1003 leaf
printf 'zorvo data object\n' >data1.bin

p11() { # token-label pkcs11-tool-arguments...
  quiet pkcs11-tool --module "$module" --token-label "$1" --login --pin "$pin" "${@:2}"
}

load_pair() { # token name id key-label cert-label
  p11 "$1" --write-object "$2.key.pem" --type privkey --id "$3" --label "$4" --usage-sign
  p11 "$1" --write-object "$2.pub.pem" --type pubkey --id "$3" --label "$4"
  p11 "$1" --write-object "$2.crt.der" --type cert --id "$3" --label "$5"
}

quiet softhsm2-util --init-token --free --label "$label" --so-pin "$so_pin" --pin "$pin"
load_pair "$label" rsa1 01 rsa1 rsa1
p11 "$label" --write-object rsa2.key.pem --type privkey --id 02 --label rsa2-key --usage-sign
p11 "$label" --write-object rsa2.crt.der --type cert --id 02 --label rsa2-cert
load_pair "$label" ec1 03 ec1 ec1
# Written without --id, the certificate gets an empty CKA_ID.
p11 "$label" --write-object ca.crt.der --type cert --label test-ca
p11 "$label" --write-object data1.bin --type data --label data1

quiet softhsm2-util --init-token --free --label "$label2" --so-pin "$so_pin" --pin "$pin"
load_pair "$label2" rsa1 01 rsa1 rsa1
load_pair "$label2" ec1 03 ec1 ec1

cat >env.tmp <<EOF
SOFTHSM2_CONF=$dir/softhsm2.conf
ZORVO_SOFTHSM_DIR=$dir
ZORVO_SOFTHSM_MODULE=$module
ZORVO_SOFTHSM_LABEL=$label
ZORVO_SOFTHSM_LABEL2=$label2
ZORVO_SOFTHSM_PIN=$pin
ZORVO_SOFTHSM_SO_PIN=$so_pin
ZORVO_SOFTHSM_CA_KEY=$dir/ca.key.pem
ZORVO_SOFTHSM_CA_CERT=$dir/ca.crt.pem
ZORVO_SOFTHSM_CA_CERT_DER=$dir/ca.crt.der
ZORVO_SOFTHSM_RSA1_KEY=$dir/rsa1.key.pem
ZORVO_SOFTHSM_RSA1_PUB=$dir/rsa1.pub.pem
ZORVO_SOFTHSM_RSA1_CERT=$dir/rsa1.crt.pem
ZORVO_SOFTHSM_RSA1_CERT_DER=$dir/rsa1.crt.der
ZORVO_SOFTHSM_RSA2_KEY=$dir/rsa2.key.pem
ZORVO_SOFTHSM_RSA2_CERT=$dir/rsa2.crt.pem
ZORVO_SOFTHSM_RSA2_CERT_DER=$dir/rsa2.crt.der
ZORVO_SOFTHSM_EC1_KEY=$dir/ec1.key.pem
ZORVO_SOFTHSM_EC1_PUB=$dir/ec1.pub.pem
ZORVO_SOFTHSM_EC1_CERT=$dir/ec1.crt.pem
ZORVO_SOFTHSM_EC1_CERT_DER=$dir/ec1.crt.der
ZORVO_SOFTHSM_DATA1=$dir/data1.bin
EOF
mv env.tmp env
echo "$stamp" >stamp
