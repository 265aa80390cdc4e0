#!/usr/bin/env bash
# zorvo-sign as a user runs it, on SoftHSM2 and on the test token (tprov): one table of runs, each
# with its exit status, the last line it writes to standard error, and what its output must be.
# usage: tool_test.sh ZORVO_SIGN TPROV SOURCE_DIR BUILD_DIR
set -uo pipefail
tool=$(realpath "$1") tprov=$(realpath "$2") src=$(realpath "$3") build=$(realpath "$4")
set -a && . "$build/softhsm/env" && set +a
w=$build/tool-test
rm -rf "$w" && mkdir -p "$w" && cd "$w" || exit 1
# A copy of the tokens of our own: SoftHSM2 writes them at login while other tests read.
cp -r "$DIR/tokens" tokens && printf 'directories.tokendir = %s/tokens\n' "$w" >softhsm2.conf
export SOFTHSM2_CONF=$w/softhsm2.conf
export ZORVO_PIN=$PIN ZORVO_TP= ZORVO_TP_GOST=$src/tests/data/gost
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

for id in rsa1 rsa2 ec1; do cp "$DIR/$id.crt.pem" "$id.pem"; done
for id in gost2001 gost2012_256 gost2012_512 gost2012_tc26a; do cp "$src/tests/data/gost/$id.cert.pem" "$id.pem"; done
printf 'Документ для подписи\n' >doc.txt
printf 'with\0NUL' >nul.bin
head -c 3000000 /dev/urandom >big.bin
printf '%s\r\nsecond line\n' "$PIN" >pin.txt
printf 'keep me\n' >keep.pem
printf 'old\n' | tee target.pem >private.pem && chmod 600 private.pem
ln -s target.pem link.pem && ln -s nowhere/x dangling.pem && ln doc.txt hard.txt && mkfifo fifo
mkdir dir.pem pindir plant && : >empty.pin && cp "$tprov" plant/libplanted.so
export ZORVO_TP_LOG=$w/calls.log
"$tool" list --module "$MODULE" --token zorvo-a >list.txt 2>&1
uri=$(sed -n '/Certificate "rsa1"/,/uri:/s/^    uri: *//p' list.txt)
# Signatures to verify: ours (RSA attached and detached, GOST), and one openssl made with a key file.
ZORVO_PIN=$PIN "$tool" sign --module "$MODULE" --cert "$uri" --in doc.txt --out signed-by-us.pem >/dev/null
ZORVO_PIN=$PIN "$tool" sign --module "$MODULE" --cert rsa2 --token zorvo-a --in doc.txt --out detached-by-us.pem --detached >/dev/null
ZORVO_PIN=$PIN "$tool" sign --module "$tprov" --token zorvo-g --cert gost2012_tc26a --in doc.txt --out gost-by-us.pem >/dev/null
openssl cms -sign -binary -in doc.txt -signer rsa2.pem -inkey "$DIR/rsa2.key.pem" -outform PEM -out by-openssl.pem

# check MODE CERT [DATA]: out.pem verifies against CERT.pem (GOST with the gost engine, in its
# own process) and covers exactly DATA (default doc.txt); MODE is attached or detached.
check() {
  local args=(cms -verify -binary -inform PEM -in out.pem -CAfile "$2.pem" -partial_chain -purpose any -out content)
  [ "$1" = detached ] && args+=(-content "${3:-doc.txt}")
  case $2 in gost*) args+=(-engine gost) ;; esac
  openssl "${args[@]}" >verify.log 2>&1 || { fail "$row: does not verify: $(cat verify.log)"; return; }
  cmp -s content "${3:-doc.txt}" || fail "$row: covers other data"
  [ "$(openssl cms -cmsout -print -inform PEM -in out.pem 2>/dev/null | grep -c 'eContent: <ABSENT>')" = \
    "$([ "$1" = detached ] && echo 1 || echo 0)" ] || fail "$row: not $1"
}

# One run a line: STATUS | TP rules | the command (zs is the tool; $m: SoftHSM2, $t: the test
# token) | the last line of standard error (a pattern; '' for none) | a check of what it wrote.
zs() { "$tool" "$@"; }
m="--module $MODULE" t="--module $tprov --token zorvo-g" chain=$src/tests/data/gost-chain
s="sign --in doc.txt --out out.pem"
while IFS='|' read -r status rules args message after; do
  row="$args"
  rm -f out.pem calls.log
  eval "export ZORVO_TP='$rules'; $args" >stdout 2>stderr
  got=$?
  [ "$got" = "$status" ] || fail "$row: status $got, wanted $status: $(cat stderr)"
  # shellcheck disable=SC2053
  [[ "$(tail -n 1 stderr)" == $message ]] || fail "$row: says '$(tail -n 1 stderr)', wanted '$message'"
  [ "$status" = 0 ] || [ ! -e out.pem ] || fail "$row: left an output file"
  eval "$after"
done <<EOF
0||zs --help||grep -q '^ 13  token removed' stdout && ! grep -q '^ 10 ' stdout || fail "help: exit table"
2||zs sign --cert rsa1|zorvo-sign: --module PROVIDER is needed|
2||zs list $m --what|zorvo-sign: unexpected argument --what (see zorvo-sign --help)|
6||zs list $m|zorvo-sign: token "zorvo-b": certificate without an identifier on the token (122: bad x509 id)|grep -q '^  not initialised$' stdout || fail "list: no blank token"
0||zs list $m --token zorvo-a||grep -qxF '    serial:     1001' stdout && grep -qxF '    key usage:  digitalSignature, nonRepudiation' stdout && grep -qxF "    subject:    \$(openssl x509 -in rsa2.pem -noout -subject -nameopt RFC2253 | cut -c9-)" stdout || fail "list: \$(cat stdout)"
0||zs list $m --token zorvo-a --json||python3 -m json.tool stdout >/dev/null && grep -qF '"label":"rsa1","id":"01"' stdout && grep -qF '"serial":"4097","serialHex":"1001"' stdout || fail "json: \$(cat stdout)"
5||zs list $m --token nope|zorvo-sign: no token labelled "nope"|
0||zs $s $m --cert rsa1 --token zorvo-a --one-shot||check attached rsa1
0||zs $s $m --cert label:rsa2 --token zorvo-a --detached||check detached rsa2
0||zs $s $m --cert id:01 --token zorvo-a --stream||check attached rsa1
0||zs $s $m --cert '$uri' --stream --detached||check detached rsa1
0||zs sign $m --cert '$uri' --in - --out out.pem --stream --detached <big.bin||check detached rsa1 big.bin
0||zs sign $m --cert '$uri' --in nul.bin --out out.pem||check attached rsa1 nul.bin
0||zs $s $m --cert '$uri' --pin-file pin.txt||check attached rsa1
0||MY_PIN=$PIN zs $s $m --cert '$uri' --pin-env MY_PIN||check attached rsa1
0||zs $s $t --cert gost2001 --one-shot||check attached gost2001
0||zs $s $t --cert gost2012_256 --stream --detached||check detached gost2012_256
0||zs $s $t --cert id:23 --stream||check attached gost2012_512
2||zs $s $m --cert '$uri' --pin-env NO_SUCH_PIN|zorvo-sign: no PIN: the variable NO_SUCH_PIN is not set|
2||zs $s $m --cert 'pkcs11:slot-id=1'|zorvo-sign: --cert: URI attribute not supported: slot-id|
3||zs sign $m --cert '$uri' --in nul.bin --out out.pem --one-shot|zorvo-sign: nul.bin contains a NUL byte, which one-shot signing cannot sign: leave --one-shot out|
3||zs sign $m --cert rsa1 --in none --out out.pem|zorvo-sign: cannot read none: No such file or directory|
4||zs $s --module ./none.so --cert rsa1|zorvo-sign: cannot load the PKCS#11 provider (100: failed to load p11 module)|
4|C_Initialize@1=0x6|zs $s $t --cert gost2001|zorvo-sign: cannot initialise the PKCS#11 provider (101: failed to initialize p11 module)|
5||zs $s $m --cert rsa1 --token nope|zorvo-sign: no token with token=nope|
6||zs $s $m --cert nope --token zorvo-a|zorvo-sign: no such certificate: "nope"|
6||zs $s --module $tprov --cert gost2001|zorvo-sign: certificate "gost2001" is ambiguous: 3 match (token "zorvo-?" id 21 serial * issuer O=Zorvo test,CN=gost2001 signer;*); add --token, or choose by serial:HEX or a pkcs11: URI from \`zorvo-sign list\`|
0||zs $s $m --cert serial:10:01 --token zorvo-a||check attached rsa1
11||zs $s $m --cert mismatch --token zorvo-c|zorvo-sign: the signature does not verify against certificate "mismatch": the token's key under its identifier belongs to another certificate|
0||zs verify --sig signed-by-us.pem --no-chain --out out.txt||cmp -s out.txt doc.txt || fail "content"
0||zs verify --sig detached-by-us.pem --in doc.txt --ca $DIR/ca.crt.pem||grep -q '^signer:     CN=Zorvo RSA Two,OU=' stdout && grep -qx 'signing-certificate-v2: matches the certificate' stdout && grep -q '^chain:      checked up to ' stdout || fail "\$(cat stdout)"
14||zs verify --sig detached-by-us.pem --in nul.bin --ca $DIR/ca.crt.pem|zorvo-sign: the signature does not verify: content verify error|
14||zs verify --sig signed-by-us.pem --ca $DIR/ca.crt.pem|zorvo-sign: the signature does not verify: certificate verify error: Verify error: *|
0||zs verify --sig gost-by-us.pem --ca gost2012_tc26a.pem||grep -qx 'digest:     GOST R 34.11-2012 with 256 bit hash' stdout || fail "\$(cat stdout)"
0||ZORVO_TP_GOST=$chain zs sign --in doc.txt --out chain.pem $t --cert issued >/dev/null && zs verify --sig chain.pem --ca $chain/ca.pem --out out.txt||cmp -s out.txt doc.txt || fail "content"
14||zs verify --sig chain.pem --ca $chain/impostor.pem|zorvo-sign: the signature does not verify: certificate verify error: Verify error: certificate signature failure|
0||zs verify --sig by-openssl.pem --in doc.txt --no-chain||grep -qx 'signing-certificate-v2: absent' stdout || fail "\$(cat stdout)"
0||zs verify --sig $src/tests/data/gost-verify/gost2012_512-C.sig.der --in $src/tests/data/gost-verify/message.txt --ca $src/tests/data/gost-verify/gost2012_512-C.cert.pem||
3||zs verify --sig doc.txt --no-chain|zorvo-sign: doc.txt is no CMS signature|
2||zs verify --sig doc.txt|zorvo-sign: verify takes one of --ca FILE and --no-chain|
7||ZORVO_PIN=4711 zs $s $m --cert '$uri' --log debug.log --log-level debug|zorvo-sign: wrong PIN (201: pin incorrect)|grep -q CKR_PIN_INCORRECT debug.log && ! grep -q 4711 debug.log stdout stderr || fail "PIN in the log"
7||ZORVO_PIN=4711 zs sign $m --cert '$uri' --in doc.txt --out keep.pem|zorvo-sign: wrong PIN (201: pin incorrect)|[ "\$(cat keep.pem)" = "keep me" ] || fail "output replaced"
8|C_Login@1=0xa4|zs $s $t --cert gost2001|zorvo-sign: PIN locked (204: pin locked)|
9||zs $s $m --cert ec1|zorvo-sign: unsupported key type (110: CKK_EC private key type is unsupported)|
11|C_SignInit@1=0x6|zs $s $t --cert gost2001|zorvo-sign: signing failed (300: error while signing finalization)|
12|C_Sign@1=0x1|zs $s $t --cert gost2001 --stream|zorvo-sign: signature cancelled on the token (501: user cancel operation)|
12|C_Sign@1=0x1|zs $s $t --cert gost2001 --one-shot|zorvo-sign: signature cancelled on the token (300: error while signing finalization)|
0||zs $s $m --cert '$uri' --out -|Signed doc.txt (39 bytes) * standard output (attached)|cp stdout out.pem && check attached rsa1
0||zs $s $m --cert '$uri' --out private.pem||[ "\$(stat -c %a private.pem)" = 600 ] || fail "mode lost"; cp private.pem out.pem && check attached rsa1
0||zs $s $m --cert '$uri' --out link.pem||[ -L link.pem ] && cp target.pem out.pem && check attached rsa1 || fail "link replaced"
0||zs $s $m --cert '$uri' --out /dev/null||[ -c /dev/null ] || fail "/dev/null replaced"
0||(cat fifo >from-fifo &); zs $s $m --cert '$uri' --out fifo||sleep 0.2; cp from-fifo out.pem && check attached rsa1
0||zs sign $m --cert '$uri' --in /dev/null --out out.pem --stream||check attached rsa1 /dev/null
3||zs $s $m --cert '$uri' --out dangling.pem|zorvo-sign: cannot write dangling.pem (a link to nowhere): No such file or directory|
3||zs $s $m --cert '$uri' --out dir.pem|zorvo-sign: cannot write dir.pem: a directory|
3||zs sign $m --cert '$uri' --in doc.txt --out hard.txt|zorvo-sign: cannot write hard.txt: it is the input|
3||zs sign $m --cert '$uri' --in - --out doc.txt <doc.txt|zorvo-sign: cannot write doc.txt: it is the input|cmp -s doc.txt hard.txt || fail "input changed"
3||zs sign $m --cert '$uri' --in /dev/zero --out out.pem --one-shot|zorvo-sign: /dev/zero is larger than one-shot signing takes (64 MiB): leave --one-shot out|
2||zs $s $m --cert rsa1 --stream --one-shot|zorvo-sign: --stream and --one-shot exclude each other|
0||(cd plant && LD_DEBUG=libs zs --version)|*|! grep -q 'trying file=\./' stderr || fail "looked in the current directory"
4||(cd plant && zs list --module libplanted.so)|zorvo-sign: cannot load the PKCS#11 provider (100: failed to load p11 module)|
2||ZORVO_PIN= zs $s $t --cert gost2001|zorvo-sign: empty PIN in ZORVO_PIN: not sent to the token|! grep -qs C_Login calls.log || fail "the token saw the PIN"
2||zs $s $t --cert gost2001 --pin-file empty.pin|zorvo-sign: empty PIN in empty.pin: not sent to the token|
3||zs $s $t --cert gost2001 --pin-file pindir|zorvo-sign: cannot read PIN file pindir: Is a directory|
0|tokenflags=0x30000|zs list $t||grep -qxF '  user PIN:     count low, final try' stdout || fail "no PIN state"
0|tokenflags=0x20000|zs $s $t --cert gost2001|zorvo-sign: warning: token "zorvo-g" locks the PIN after one more wrong try|check attached gost2001
5|attrlen=1073741824|zs list $t|zorvo-sign: token "zorvo-g": cannot read an object on the token (107: failed to get attribute value)|
5|attrlen=18446744073709551615|zs list $t|zorvo-sign: token "zorvo-g": cannot read an object on the token (107: failed to get attribute value)|
5|count=100000000|zs list $t|zorvo-sign: cannot list the slots (102: failed to get a number of list of slots with token)|
5|endless|zs list $t|zorvo-sign: token "zorvo-g": cannot search the token (106: failed to find token's certificate)|
13|C_Sign@1=0x32,gone=3|zs $s $t --cert gost2001|zorvo-sign: token removed (300: error while signing finalization)|
EOF
[ "$failures" = 0 ] && echo "tool: ok" || { echo "$failures check(s) failed" >&2; exit 1; }
