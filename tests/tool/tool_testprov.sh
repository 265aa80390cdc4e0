#!/usr/bin/env bash
# zorvo-sign against the test provider (tests/tool/toolprov.cpp): text and JSON of unusual
# labels, RSA and GOST signatures, ambiguity, and the failures a real token cannot be made to
# show on demand: PIN locked, cancelled, pulled out while signing.
# usage: tool_testprov.sh ZORVO_SIGN TOOLPROV_SO SOURCE_DIR WORK_DIR
set -euo pipefail
tool=$1 provider=$2 src=$3 work=$4
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib.sh"
rm -rf "$work" && mkdir -p "$work"

# The RSA identity that the provider puts on its token.
export ZORVO_TOOLPROV_DIR=$work ZORVO_TOOLPROV_SCENARIO=""
openssl req -x509 -utf8 -newkey rsa:2048 -nodes -keyout "$work/rsa.key.pem" -out "$work/rsa.crt.pem" -days 30 \
  -subj "/CN=Тест подписи/O=Zorvo test" -addext keyUsage=critical,digitalSignature 2>/dev/null
openssl x509 -in "$work/rsa.crt.pem" -outform DER -out "$work/rsa.crt.der"
rsa=$work/rsa.crt.pem
gost=$src/tests/data/gost/gost2012_256.cert.pem

pin='s3cret-PIN-7x!'
export ZORVO_PIN=$pin
m=(--module "$provider")
doc=$work/doc.txt
printf 'Документ для подписи\n' >"$doc"
s=(sign "${m[@]}" --in "$doc" --out "$work/x.pem")

# ---- list: UTF-8 labels, control characters shown safely, JSON escaped
expect_ok "list" list "${m[@]}"
for line in 'Token "Подпись" (slot 1)' '  Certificate "signer"' '    id:         0a0b' \
            '    subject:    CN=Тест подписи, O=Zorvo test' '    key usage:  digitalSignature' \
            '  Certificate "odd "label"?x"' '  Certificate "gost"'; do
  grep -qxF "$line" "$work/stdout" || fail "list: no line '$line'"
done
expect_ok "list json" list "${m[@]}" --json
cp "$work/stdout" "$work/list.json"
valid_json "$work/list.json"
for piece in '"label":"Подпись"' '"label":"odd \"label\"\tx","id":"0d"' '"subject":{"CN":"Тест подписи","O":"Zorvo test"}'; do
  grep -qF "$piece" "$work/list.json" || fail "list json: no $piece"
done

# ---- sign: RSA and GOST (the engine the tool registers), URIs with encoded Cyrillic
uri=$(grep -o '"uri":"pkcs11:[^"]*object=signer[^"]*"' "$work/list.json" | sed 's/^"uri":"//; s/"$//')
while read -r name mode trust selector extra; do
  pem=$work/$name.pem
  opts=()
  [ "$trust" = gost ] && opts=(-engine gost)
  # shellcheck disable=SC2086
  expect_ok "sign $name" sign "${m[@]}" --cert "$selector" --in "$doc" --out "$pem" $extra
  verify "sign $name" "$pem" "$doc" "${!trust}" "$mode" "${opts[@]}"
done <<EOT
rsa             attached rsa  signer
rsa-uri         detached rsa  $uri                                                   --stream --detached
rsa-encoded-uri attached rsa  pkcs11:token=%D0%9F%D0%BE%D0%B4%D0%BF%D0%B8%D1%81%D1%8C;id=%0A%0B;type=cert
gost-stream     detached gost gost                                                   --stream --detached
gost-oneshot    attached gost id:21
EOT

# Large input with every byte value, from standard input, streamed.
head -c 3000000 /dev/urandom >"$work/big.bin"
set +e
"$tool" sign "${m[@]}" --cert signer --in - --out "$work/big.pem" --stream --detached <"$work/big.bin" \
  >"$work/stdout" 2>"$work/stderr"
status=$?
set -e
[ "$status" -eq 0 ] || fail "big stdin: status $status: $(cat "$work/stderr")"
[ ! -s "$work/stderr" ] || fail "big stdin: progress written while standard error is no terminal"
verify "big stdin" "$work/big.pem" "$work/big.bin" "$rsa" detached

# ---- the PIN reaches no log line and no message
expect_ok "debug log" sign "${m[@]}" --cert signer --in "$doc" --out "$work/log.pem" --stream \
  --log "$work/debug.log" --log-level debug
[ -s "$work/debug.log" ] || fail "debug log: empty"
if grep -qF "$pin" "$work/debug.log" "$work/stdout" "$work/stderr"; then fail "debug log: the PIN was written"; fi

# ---- failures
expect_fail "unsupported key" 9 'zorvo-sign: unsupported key type (110: CKK_EC private key type is unsupported)' \
  "${s[@]}" --cert ec
export ZORVO_PIN=wrong-PIN-0815
expect_fail "wrong PIN" 7 'zorvo-sign: wrong PIN (201: pin incorrect)' "${s[@]}" --cert signer \
  --log "$work/wrong.log" --log-level debug
if grep -qF "$ZORVO_PIN" "$work/wrong.log" "$work/stderr"; then fail "wrong PIN: the PIN was written"; fi
export ZORVO_PIN=$pin

while IFS='|' read -r scenario name want message extra; do
  export ZORVO_TOOLPROV_SCENARIO=$scenario
  # shellcheck disable=SC2086
  expect_fail "$name" "$want" "$message" "${s[@]}" --cert signer $extra
done <<'EOT'
twins|ambiguous|6|zorvo-sign: certificate "signer" is ambiguous: 2 match (token "Подпись" id 0a0b, token "second" id 0a0b); add --token or use a pkcs11: URI from `zorvo-sign list`|
pin-locked|PIN locked|8|zorvo-sign: PIN locked (204: pin locked)|
cancel-on-sign|cancelled, streamed|12|zorvo-sign: signature cancelled on the token (501: user cancel operation)|--stream
cancel-on-sign|cancelled, one-shot|11|zorvo-sign: signing failed (300: error while signing finalization)|
remove-on-sign|removed, streamed|13|zorvo-sign: token removed (300: error while signing finalization)|--stream
remove-on-sign|removed, one-shot|13|zorvo-sign: token removed (300: error while signing finalization)|
EOT
export ZORVO_TOOLPROV_SCENARIO=twins
expect_ok "twins, one chosen" sign "${m[@]}" --cert signer --token second --in "$doc" --out "$work/second.pem"
verify "twins, one chosen" "$work/second.pem" "$doc" "$rsa" attached
export ZORVO_TOOLPROV_SCENARIO=

finish
