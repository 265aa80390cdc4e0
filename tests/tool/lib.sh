# Helpers for the zorvo-sign tests; sourced. Needs $tool (the zorvo-sign binary) and $work.
failures=0

fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# run ARGS...: runs the tool; sets $status, $out (stdout) and $err (stderr).
run() {
  set +e
  "$tool" "$@" >"$work/stdout" 2>"$work/stderr"
  status=$?
  set -e
  out=$(cat "$work/stdout")
  err=$(cat "$work/stderr")
}

# expect_ok NAME ARGS...
expect_ok() {
  local name=$1; shift
  run "$@"
  [ "$status" -eq 0 ] || fail "$name: status $status: $err"
}

# expect_fail NAME STATUS MESSAGE ARGS...: that exit status, MESSAGE as the last line of
# standard error (whole line), nothing on the output path given with --out.
expect_fail() {
  local name=$1 want=$2 message=$3; shift 3
  local target="" prev=""
  for a in "$@"; do
    [ "$prev" = "--out" ] && target=$a
    prev=$a
  done
  [ -z "$target" ] || rm -f "$target"
  run "$@"
  [ "$status" -eq "$want" ] || fail "$name: status $status, wanted $want: $err"
  [ "$(printf '%s\n' "$err" | tail -n 1)" = "$message" ] || fail "$name: message '$err', wanted '$message'"
  if [ -n "$target" ] && { [ -e "$target" ] || [ -e "$target.tmp" ]; }; then
    fail "$name: output left behind"
  fi
}

# verify NAME PEM DATA CERT attached|detached [openssl options...]: the signature checks and
# covers exactly DATA.
verify() {
  local name=$1 pem=$2 data=$3 cert=$4 mode=$5; shift 5
  local args=(cms -verify -binary -inform PEM -in "$pem" -CAfile "$cert" -partial_chain -purpose any
              -out "$work/verified" "$@")
  [ "$mode" = detached ] && args+=(-content "$data")
  if ! openssl "${args[@]}" >"$work/openssl.log" 2>&1; then
    fail "$name: openssl cms -verify: $(cat "$work/openssl.log")"
    return
  fi
  cmp -s "$work/verified" "$data" || fail "$name: verified content differs"
  # Attached signatures carry the data; detached ones do not.
  local absent=0
  openssl cms -cmsout -print -inform PEM -in "$pem" "$@" 2>/dev/null | grep -q 'eContent: <ABSENT>' && absent=1
  [ "$mode" = attached ] && [ $absent -eq 1 ] && fail "$name: no content in an attached signature"
  [ "$mode" = detached ] && [ $absent -eq 0 ] && fail "$name: content in a detached signature"
  return 0
}

# valid_json FILE: checked when a JSON reader is at hand.
valid_json() {
  if command -v python3 >/dev/null && python3 -c 'import json' 2>/dev/null; then
    python3 -m json.tool "$1" >/dev/null || fail "invalid JSON: $(cat "$1")"
  elif command -v jq >/dev/null; then
    jq . "$1" >/dev/null || fail "invalid JSON: $(cat "$1")"
  fi
}

finish() {
  if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
  fi
  echo "ok"
}
