#!/usr/bin/env bash
# Makes the GOST R 34.10 test identities with OpenSSL's gost engine, in its own process.
# Each <alg>.cert.pem is self-signed; <alg>.key.hex holds the private scalar big-endian
# (leading zeros dropped). Keys are for tests only.
set -euo pipefail
cd "$(dirname "$0")"
for pair in gost2001:md_gost94 gost2012_256:md_gost12_256 gost2012_512:md_gost12_512; do
  alg=${pair%%:*} md=${pair##*:}
  openssl req -x509 -engine gost -newkey "$alg" -pkeyopt paramset:A -nodes -keyout "$alg.key.pem" \
    -out "$alg.cert.pem" -subj "/CN=$alg signer/O=Zorvo test" -days 7300 "-$md" \
    -addext keyUsage=critical,digitalSignature,nonRepudiation 2>/dev/null
  openssl pkey -engine gost -in "$alg.key.pem" -text -noout 2>/dev/null \
    | sed -n 's/^Private key: //p' > "$alg.key.hex"
  rm -f "$alg.key.pem"
done
