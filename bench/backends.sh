#!/usr/bin/env bash
# The two OpenSSL backends side by side, in one run: signatures per second (whole short
# signatures on the test tokens, and verifications of GOST signatures made elsewhere) and streaming
# MB/s (detached and attached), for the engine on the system's OpenSSL 3.0, the provider on the same
# OpenSSL, and the provider on OpenSSL 4.0.2 (scripts/openssl.sh). Rounds are taken in turn across
# the three builds and the median of ROUNDS rounds (default 5) is printed. MB is 10^6 bytes.
#   ZORVO_STREAM_MIB  size of the streamed message (default 256)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
rounds=${ROUNDS:-5}
export ZORVO_STREAM_MIB=${ZORVO_STREAM_MIB:-256}
openssl4=$(bash "$root/scripts/openssl.sh" 4.0)
declare -A args=([engine-3.0]="" [provider-3.0]="-DZORVO_OPENSSL_BACKEND=provider"
  [provider-4.0]="-DOPENSSL_ROOT_DIR=$openssl4")
order=(engine-3.0 provider-3.0 provider-4.0)
for name in "${order[@]}"; do
  dir=$root/build-bench-$name
  # shellcheck disable=SC2086
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release ${args[$name]} >/dev/null
  cmake --build "$dir" -j"${ZORVO_JOBS:-2}" --target stream_bench verify_bench >/dev/null
  bash "$root/tests/support/token.sh" "$dir"
done

out=$(mktemp)
trap 'rm -f "$out"' EXIT
# One row a benchmark: its median where it repeats itself.
csv() {
  "$@" --benchmark_format=csv 2>/dev/null | awk -F, '$1 ~ /^"(BM_|verify)/ && ($1 !~ /repeats/ || $1 ~ /_median"$/)' |
    sed 's|/repeats:[0-9]*_median||'
}
for ((i = 0; i < rounds; i++)); do
  for name in "${order[@]}"; do
    dir=$root/build-bench-$name
    # name, then bytes/s or signatures/s (the last column that has a value)
    for group in Signatures StreamDetached StreamAttached; do  # each with counters of its own
      csv "$dir/bench/stream/stream_bench" --benchmark_filter="$group" |
        awk -F, -v b="$name" '{gsub(/"/, "", $1); v = $6 != "" ? $6 : $NF; print b, $1, v}' >>"$out"
    done
    csv "$dir/bench/verify_bench" --benchmark_filter='gost2012_256_cryptopro|gost2012_512_tc26_a|rsa' \
      | awk -F, -v b="$name" '{gsub(/"/, "", $1); print b, $1, $NF}' >>"$out"
  done
done

median() { sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
printf '| %-52s | %14s | %14s | %14s |\n|---|---:|---:|---:|\n' measure "${order[@]}"
for bench in $(awk '{print $2}' "$out" | awk '!seen[$0]++'); do
  unit="signatures/s"
  case $bench in *Stream*) unit="MB/s" ;; esac
  row=$(printf '| %-52s |' "$bench ($unit)")
  for name in "${order[@]}"; do
    v=$(awk -v b="$name" -v n="$bench" '$1 == b && $2 == n {print $3}' "$out" | median)
    [ "$unit" = "MB/s" ] && v=$(awk -v x="$v" 'BEGIN {print x / 1e6}')
    row+=$(printf ' %14.1f |' "$v")
  done
  echo "$row"
done
