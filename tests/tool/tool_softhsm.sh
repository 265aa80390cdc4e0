#!/usr/bin/env bash
# zorvo-sign against SoftHSM2, with the tokens of tests/support/softhsm_token.sh:
# "zorvo-test" (a certificate without CKA_ID: unreadable), "zorvo-test2" (rsa1 id 01, ec1 id 03).
# usage: tool_softhsm.sh ZORVO_SIGN ENV_FILE WORK_DIR
set -euo pipefail
tool=$1 envfile=$2 work=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib.sh"
set -a && . "$envfile" && set +a
rm -rf "$work" && mkdir -p "$work"
m=(--module "$ZORVO_SOFTHSM_MODULE")
cert=$ZORVO_SOFTHSM_RSA1_CERT
export ZORVO_PIN=$ZORVO_SOFTHSM_PIN
doc=$work/doc.txt
printf 'A document to sign.\nSecond line.\n' >"$doc"

# ---- list
run list "${m[@]}"
[ "$status" -eq 6 ] || fail "list: status $status (an unreadable token is a failure)"
[ "$(tail -n 1 "$work/stderr")" = 'zorvo-sign: token "zorvo-test": certificate without an identifier on the token (122: bad x509 id)' ] \
  || fail "list: $err"
grep -q '^  Certificate "rsa1"$' "$work/stdout" || fail "list: rsa1 missing: $out"
grep -q '^  not initialised$' "$work/stdout" || fail "list: the blank token is not shown as such"

expect_ok "list one token" list "${m[@]}" --token zorvo-test2
for line in '  Certificate "rsa1"' '    id:         01' '    subject:    CN=Zorvo RSA One, O=Zorvo Test, C=RU' \
            '    serial:     4097' '    key usage:  digitalSignature, nonRepudiation' '  Certificate "ec1"'; do
  grep -qxF "$line" "$work/stdout" || fail "list one token: no line '$line'"
done
uri=$(sed -n '/Certificate "rsa1"/,/uri:/s/^    uri: *//p' "$work/stdout")
case $uri in pkcs11:token=zorvo-test2\;*object=rsa1\;id=%01\;type=cert) ;; *) fail "list: uri $uri" ;; esac

expect_ok "list json" list "${m[@]}" --token zorvo-test2 --json
cp "$work/stdout" "$work/list.json"
valid_json "$work/list.json"
grep -qF '"label":"rsa1","id":"01"' "$work/list.json" || fail "list json: rsa1: $out"

# ---- sign: selectors by label, identifier and URI; one-shot and streamed; attached and detached
while read -r name mode selector extra; do
  pem=$work/$name.pem
  # shellcheck disable=SC2086
  expect_ok "sign $name" sign "${m[@]}" --cert "$selector" --in "$doc" --out "$pem" $extra
  verify "sign $name" "$pem" "$doc" "$cert" "$mode"
done <<EOT
plain       attached rsa1
label       detached label:rsa1                       --detached
id          attached id:01                            --token zorvo-test2 --stream
uri         detached $uri                             --stream --detached
short-uri   attached pkcs11:token=zorvo-test2;id=%01
EOT

# PIN from a file (first line) and from a named variable
printf '%s\r\nsecond line\n' "$ZORVO_SOFTHSM_PIN" >"$work/pin.txt"
unset ZORVO_PIN
expect_ok "pin file" sign "${m[@]}" --cert rsa1 --in "$doc" --out "$work/pf.pem" --pin-file "$work/pin.txt"
verify "pin file" "$work/pf.pem" "$doc" "$cert" attached
export MY_PIN=$ZORVO_SOFTHSM_PIN
expect_ok "pin env" sign "${m[@]}" --cert rsa1 --in "$doc" --out "$work/pe.pem" --pin-env MY_PIN
expect_fail "unset PIN variable" 2 'zorvo-sign: no PIN: the variable NO_SUCH_PIN is not set' \
  sign "${m[@]}" --in "$doc" --out "$work/x.pem" --cert rsa1 --pin-env NO_SUCH_PIN
export ZORVO_PIN=$ZORVO_SOFTHSM_PIN

# ---- failures: one line, the status, and no output file
printf 'with\0NUL' >"$work/nul.bin"
s=(sign "${m[@]}" --in "$doc" --out "$work/x.pem")
expect_fail "unknown certificate" 6 'zorvo-sign: no such certificate: "nope"; token "zorvo-test" could not be read (122: bad x509 id)' \
  "${s[@]}" --cert nope
expect_fail "unknown certificate on a token" 6 'zorvo-sign: no such certificate: "nope"' "${s[@]}" --cert nope --token zorvo-test2
expect_fail "unknown token" 5 'zorvo-sign: no token with token=nope' "${s[@]}" --cert rsa1 --token nope
expect_fail "unsupported key" 9 'zorvo-sign: unsupported key type (110: CKK_EC private key type is unsupported)' \
  "${s[@]}" --cert ec1
expect_fail "NUL one-shot" 3 "zorvo-sign: $work/nul.bin contains a NUL byte, which one-shot signing cannot sign: use --stream" \
  sign "${m[@]}" --cert rsa1 --in "$work/nul.bin" --out "$work/x.pem"
expect_fail "missing input" 3 "zorvo-sign: cannot read $work/none: No such file or directory" \
  sign "${m[@]}" --cert rsa1 --in "$work/none" --out "$work/x.pem"
expect_fail "bad provider" 4 'zorvo-sign: cannot load the PKCS#11 provider (100: failed to load p11 module)' \
  sign --module "$work/none.so" --cert rsa1 --in "$doc" --out "$work/x.pem"
expect_fail "bad URI" 2 'zorvo-sign: --cert: URI attribute not supported: slot-id' "${s[@]}" --cert 'pkcs11:slot-id=1'

NUL_ok=$work/nul.pem
expect_ok "NUL streamed" sign "${m[@]}" --cert rsa1 --in "$work/nul.bin" --out "$NUL_ok" --stream
verify "NUL streamed" "$NUL_ok" "$work/nul.bin" "$cert" attached

# Wrong PIN: the message, and the PIN in no log line even at debug level.
wrong=wrong-PIN-4711
export ZORVO_PIN=$wrong
expect_fail "wrong PIN" 7 'zorvo-sign: wrong PIN (201: pin incorrect)' \
  "${s[@]}" --cert rsa1 --token zorvo-test2 --log "$work/wrong.log" --log-level debug
grep -q 'CKR_PIN_INCORRECT' "$work/wrong.log" || fail "wrong PIN: the log lacks the provider's answer"
if grep -qF "$wrong" "$work/wrong.log" "$work/stdout" "$work/stderr"; then fail "wrong PIN: the PIN was written"; fi

# A failed signature leaves an existing output file alone.
printf 'keep me\n' >"$work/keep.pem"
run sign "${m[@]}" --cert rsa1 --token zorvo-test2 --in "$doc" --out "$work/keep.pem"
[ "$status" -eq 7 ] || fail "existing output: the signature did not fail"
[ "$(cat "$work/keep.pem")" = "keep me" ] && [ ! -e "$work/keep.pem.tmp" ] || fail "existing output overwritten"

finish
