#!/usr/bin/env bash
# The library in a user's hands: installs what is missing, builds the library and zorvo-sign,
# makes a SoftHSM2 demo token with an RSA key and certificate, lists it, signs a document
# (attached and detached) and verifies both signatures with openssl.
# The token lives in .cache/demo-token with its own softhsm2.conf, never in the machine's
# token store. A second run reuses the token and the build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${ZORVO_JOBS:-$(nproc)}
build=$root/build-demo
token_dir=$root/.cache/demo-token
out=$build/demo
label="Zorvo Demo"
cert_label=demo-signer
pin=123456
so_pin=12345678

step() { printf '\n==> %s\n' "$*"; }
quiet() { # runs a command, shows its output only when it fails
  local log
  if ! log=$("$@" 2>&1); then
    printf '%s\n' "$log" >&2
    echo "demo: failed: $*" >&2
    exit 1
  fi
}

step "Installing what is missing (scripts/setup.sh)"
bash scripts/setup.sh

step "Building the library and zorvo-sign in $build"
quiet cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORVO_BUILD_TESTS=OFF -DZORVO_BUILD_BENCH=OFF
quiet cmake --build "$build" -j"$jobs" --target zorvo-sign
tool=$build/tools/zorvo-sign

module=""
for m in /usr/lib/softhsm/libsofthsm2.so /usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so; do
  [ -f "$m" ] && module=$m && break
done
[ -n "$module" ] || { echo "demo: libsofthsm2.so not found" >&2; exit 1; }
export SOFTHSM2_CONF=$token_dir/softhsm2.conf

if [ -f "$token_dir/ready" ] && softhsm2-util --show-slots 2>/dev/null | grep -q "Label: *$label *$"; then
  step "Reusing the demo token \"$label\" in $token_dir"
else
  step "Creating the demo token \"$label\" in $token_dir"
  rm -rf "$token_dir"
  mkdir -p "$token_dir/tokens"
  chmod 700 "$token_dir"
  cat >"$SOFTHSM2_CONF" <<CONF
directories.tokendir = $token_dir/tokens
objectstore.backend = file
log.level = ERROR
slots.removable = false
CONF
  quiet softhsm2-util --init-token --free --label "$label" --so-pin "$so_pin" --pin "$pin"
  # A key pair and a self-signed certificate, loaded onto the token; the software copy of the
  # private key is then destroyed, so the key exists only on the token.
  key=$token_dir/signer.key.pem
  quiet openssl req -x509 -utf8 -newkey rsa:2048 -nodes -keyout "$key" -out "$token_dir/signer.crt.pem" \
    -days 3650 -sha256 -subj "/CN=Zorvo Demo Signer/O=Zorvo demo" \
    -addext "keyUsage=critical,digitalSignature,nonRepudiation"
  quiet openssl x509 -in "$token_dir/signer.crt.pem" -outform DER -out "$token_dir/signer.crt.der"
  p11() { quiet pkcs11-tool --module "$module" --token-label "$label" --login --pin "$pin" "$@"; }
  p11 --write-object "$key" --type privkey --id 01 --label "$cert_label" --usage-sign
  p11 --write-object "$token_dir/signer.crt.der" --type cert --id 01 --label "$cert_label"
  shred -u "$key" 2>/dev/null || rm -f "$key"
  touch "$token_dir/ready"
fi

step "Listing the token: $tool list --module $module --token \"$label\""
"$tool" list --module "$module" --token "$label"

mkdir -p "$out"
doc=$out/sample.txt
printf 'A sample document, signed by zorvo-sign on %s.\n' "$(date -u '+%Y-%m-%d %H:%M UTC')" >"$doc"
export ZORVO_PIN=$pin  # in a script; interactively zorvo-sign asks without echo

step "Signing $doc, attached"
"$tool" sign --module "$module" --token "$label" --cert "$cert_label" --in "$doc" --out "$out/sample.attached.pem"

step "Signing $doc, detached"
"$tool" sign --module "$module" --token "$label" --cert "$cert_label" --in "$doc" \
  --out "$out/sample.detached.pem" --detached

step "Verifying both signatures with openssl cms -verify"
verify=(openssl cms -verify -binary -inform PEM -CAfile "$token_dir/signer.crt.pem" -purpose any)
"${verify[@]}" -in "$out/sample.attached.pem" -out "$out/sample.extracted.txt" 2>&1 | sed 's/^/  attached: /'
cmp -s "$out/sample.extracted.txt" "$doc" || { echo "demo: the attached signature holds other data" >&2; exit 1; }
"${verify[@]}" -in "$out/sample.detached.pem" -content "$doc" -out /dev/null 2>&1 | sed 's/^/  detached: /'

step "Done"
cat <<DONE
  document:            $doc
  attached signature:  $out/sample.attached.pem
  detached signature:  $out/sample.detached.pem
  token:               "$label" (SoftHSM2, SOFTHSM2_CONF=$SOFTHSM2_CONF, PIN $pin)
Try: SOFTHSM2_CONF=$SOFTHSM2_CONF $tool list --module $module --json
DONE
