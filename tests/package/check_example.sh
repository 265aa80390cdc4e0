#!/usr/bin/env bash
# Builds examples/ as a user would, against a scratch install of the build, and runs it:
# always with --help, and against the SoftHSM2 test tokens when they exist (BUILD/softhsm/env).
# usage: check_example.sh SOURCE_DIR BUILD_DIR OUT_DIR
set -euo pipefail
src=$1 build=$2 out=$3
prefix=$out/prefix
fail() { echo "FAIL: $*" >&2; exit 1; }
rm -rf "$out" && mkdir -p "$out"
cmake --install "$build" --prefix "$prefix" >/dev/null
cmake -S "$src/examples" -B "$out/example" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$out/example" >/dev/null || fail "the example does not build"
example=$out/example/sign_example
export LD_LIBRARY_PATH=$prefix/lib

"$example" --help | grep -q '^usage: sign_example' || fail "--help"
status=0
"$example" 2>/dev/null || status=$?
[ "$status" -eq 2 ] || fail "no arguments: status $status"
"$example" "$out/none.so" >/dev/null 2>"$out/err" && fail "a missing provider was accepted"
grep -q '^error 100: failed to load p11 module$' "$out/err" || fail "missing provider: $(cat "$out/err")"

env_file=$build/softhsm/env
if [ -f "$env_file" ]; then
  set -a && . "$env_file" && set +a
  "$example" "$ZORVO_SOFTHSM_MODULE" >"$out/list" 2>"$out/list.err" || fail "list: $(cat "$out/list.err")"
  grep -q '^  certificate "rsa1": Zorvo RSA One' "$out/list" || fail "list: $(cat "$out/list")"
  printf 'example document\n' >"$out/doc.txt"
  ZORVO_PIN=$ZORVO_SOFTHSM_PIN "$example" "$ZORVO_SOFTHSM_MODULE" "$ZORVO_SOFTHSM_LABEL2" rsa1 "$out/doc.txt" \
    >"$out/both.pem" 2>"$out/sign.err" || fail "sign: $(cat "$out/sign.err")"
  # Two PEM blocks: the detached signature, then the attached one.
  awk '/BEGIN CMS/{n++} {print > (dir "/sig" n ".pem")}' dir="$out" "$out/both.pem"
  for n in 1 2; do
    args=(cms -verify -binary -inform PEM -in "$out/sig$n.pem" -CAfile "$ZORVO_SOFTHSM_RSA1_CERT" -partial_chain
          -purpose any -out "$out/content$n")
    [ "$n" = 1 ] && args+=(-content "$out/doc.txt")
    openssl "${args[@]}" 2>"$out/verify$n.log" || fail "signature $n: $(cat "$out/verify$n.log")"
    cmp -s "$out/content$n" "$out/doc.txt" || fail "signature $n covers other content"
  done
  echo "example: ok (built, run, two signatures verified)"
else
  echo "example: ok (built and run; no SoftHSM2 tokens to sign with)"
fi
