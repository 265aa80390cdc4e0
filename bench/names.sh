#!/usr/bin/env bash
# zorvo-sign list against openssl on the CA certificates of the system trust store, read through
# p11-kit's trust module (a real provider): how many subjects and issuers come out exactly as
# `openssl x509 -nameopt RFC2253` prints them. Runs the plain build (ZORVO_BUILD_DIR, default build/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ZORVO_BUILD_DIR:-$root/build}
module=/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-trust.so
bundle=/etc/ssl/certs/ca-certificates.crt
dpkg -s p11-kit-modules ca-certificates >/dev/null 2>&1 ||
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq p11-kit-modules ca-certificates >/dev/null
[ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"${ZORVO_JOBS:-2}" --target zorvo-sign >/dev/null
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT
"$build/tools/zorvo-sign" list --module "$module" >"$work/list.txt"
awk -v dir="$work" '/BEGIN CERT/ {n++} n {print > (dir "/cert" n ".pem")}' "$bundle"
for f in "$work"/cert*.pem; do
  openssl x509 -in "$f" -noout -subject -issuer -nameopt RFC2253 | sed 's/^subject=/S /; s/^issuer=/I /'
done >"$work/openssl.txt"
for what in subject issuer; do
  key=$([ $what = subject ] && echo S || echo I)
  sed -n "s/^    $what: *//p" "$work/list.txt" >"$work/ours"
  exact=$(grep -cxFf <(sed -n "s/^$key //p" "$work/openssl.txt") "$work/ours" || true)
  echo "$what: $exact of $(wc -l <"$work/ours") exactly as openssl prints them ($(ls "$work"/cert*.pem | wc -l) certificates in $bundle)"
done
