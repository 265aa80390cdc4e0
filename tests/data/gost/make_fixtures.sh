#!/usr/bin/env bash
# Makes the GOST R 34.10 test data with OpenSSL's gost engine, in its own process; files that exist
# are kept. Keys are for tests only.
#   NAME.cert.pem + NAME.key.hex   identities the test provider puts on its tokens: a self-signed
#                                  certificate and the private scalar, big-endian
#   ../gost-verify/NAME.cert.pem + NAME.sig.der   for every parameter set the engine makes, a
#                                  self-signed certificate and its detached CMS signature of
#                                  ../gost-verify/message.txt
set -euo pipefail
cd "$(dirname "$0")"
md() { case $1 in gost2001) echo md_gost94 ;; gost2012_256) echo md_gost12_256 ;; *) echo md_gost12_512 ;; esac; }
make() { # FILE-PREFIX ALG PARAMSET
  [ -f "$1.cert.pem" ] && return
  openssl req -x509 -engine gost -newkey "$2" -pkeyopt "paramset:$3" -nodes -keyout "$1.key.pem" -out "$1.cert.pem" \
    -subj "/CN=$(basename "$1") signer/O=Zorvo test" -days 7300 "-$(md "$2")" \
    -addext keyUsage=critical,digitalSignature,nonRepudiation 2>/dev/null
}
for id in gost2001:gost2001:A gost2012_256:gost2012_256:A gost2012_512:gost2012_512:A gost2012_tc26a:gost2012_256:TCA; do
  IFS=: read -r name alg set <<<"$id"
  make "$name" "$alg" "$set" || continue
  [ -f "$name.key.pem" ] || continue
  openssl pkey -engine gost -in "$name.key.pem" -text -noout 2>/dev/null | sed -n 's/^Private key: //p' >"$name.key.hex"
  rm -f "$name.key.pem"
done
mkdir -p ../gost-verify
[ -f ../gost-verify/message.txt ] || printf 'Подписано в отдельном процессе.\n' >../gost-verify/message.txt
for alg in gost2001 gost2012_256 gost2012_512; do
  case $alg in gost2001) sets="A B C XA XB" ;; gost2012_256) sets="A B C XA XB TCA TCB TCC TCD" ;; *) sets="A B C" ;; esac
  for set in $sets; do
    out=../gost-verify/$alg-$set
    make "$out" "$alg" "$set"
    [ -f "$out.key.pem" ] || continue
    openssl cms -sign -engine gost -binary -in ../gost-verify/message.txt -signer "$out.cert.pem" -inkey "$out.key.pem" \
      -outform DER -out "$out.sig.der" 2>/dev/null
    rm -f "$out.key.pem"
  done
done
# ../gost-chain/: an identity whose certificate a GOST CA (ca.pem) issued, the CA's key not kept:
# a chain to check with the library's GOST digests.
mkdir -p ../gost-chain
if [ ! -f ../gost-chain/ca.pem ]; then
  openssl req -x509 -engine gost -newkey gost2012_256 -pkeyopt paramset:A -nodes -keyout ../gost-chain/ca.key.pem \
    -out ../gost-chain/ca.cert.pem -subj "/CN=Zorvo test GOST CA/O=Zorvo test" -days 7300 -md_gost12_256 \
    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null
  openssl req -new -engine gost -newkey gost2012_256 -pkeyopt paramset:B -nodes -keyout ../gost-chain/issued.key.pem \
    -subj "/CN=issued by the gost CA/O=Zorvo test" -out ../gost-chain/issued.csr 2>/dev/null
  openssl x509 -req -engine gost -in ../gost-chain/issued.csr -CA ../gost-chain/ca.cert.pem \
    -CAkey ../gost-chain/ca.key.pem -set_serial 7 -days 7300 -md_gost12_256 \
    -extfile <(echo keyUsage=critical,digitalSignature,nonRepudiation) -out ../gost-chain/issued.cert.pem 2>/dev/null
  openssl pkey -engine gost -in ../gost-chain/issued.key.pem -text -noout 2>/dev/null |
    sed -n 's/^Private key: //p' >../gost-chain/issued.key.hex
  mv ../gost-chain/ca.cert.pem ../gost-chain/ca.pem  # not an identity of the test token
  rm -f ../gost-chain/*.key.pem ../gost-chain/issued.csr
fi
# ../gost-chain/impostor.pem: the CA's name and key identifier on another key.
if [ ! -f ../gost-chain/impostor.pem ]; then
  ski=$(openssl x509 -in ../gost-chain/ca.pem -noout -ext subjectKeyIdentifier | sed -n '2s/ //gp')
  openssl req -x509 -engine gost -newkey gost2012_256 -pkeyopt paramset:A -nodes -keyout /dev/null \
    -out ../gost-chain/impostor.pem -subj "/CN=Zorvo test GOST CA/O=Zorvo test" -days 7300 -md_gost12_256 \
    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign \
    -addext "subjectKeyIdentifier=$ski" 2>/dev/null
fi
