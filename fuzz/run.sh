#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) into build-fuzz, replays the seed
# corpus of each target, then fuzzes each for FUZZ_SECONDS seconds (default 20).
# A longer run is the same command: FUZZ_SECONDS=600 bash fuzz/run.sh
# Inputs found while fuzzing go to build-fuzz/corpus/<target>, never into the source tree;
# copy the interesting ones into fuzz/corpus/<target>. A crash leaves its input in
# build-fuzz/artifacts/ and fails the script.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ZORVO_FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${FUZZ_SECONDS:-20}
jobs=${ZORVO_JOBS:-2}
targets=(cert hash)

echo "== build $build (clang, libFuzzer, ASan+UBSan)"
CC=${FUZZ_CC:-clang-14} CXX=${FUZZ_CXX:-clang++-14} cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZORVO_FUZZ=ON -DZORVO_SANITIZE=ON -DZORVO_BUILD_TESTS=OFF -DZORVO_BUILD_BENCH=OFF \
  -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link >/dev/null
cmake --build "$build" -j"$jobs" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p "$build/artifacts"
summary=()
for t in "${targets[@]}"; do
  exe=$build/fuzz/fuzz_$t
  seeds=$root/fuzz/corpus/$t
  found=$build/corpus/$t
  mkdir -p "$found"
  echo "== $t: replay $(find "$seeds" -type f | wc -l) seed inputs"
  "$exe" -runs=0 -artifact_prefix="$build/artifacts/$t-" "$seeds" 2>&1 | tail -n 2
  echo "== $t: fuzz for ${seconds}s"
  log=$build/fuzz-$t.log
  if ! "$exe" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$t-" "$found" "$seeds" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "== $t: FAILED (input in $build/artifacts)"
    exit 1
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  corpus=$(find "$found" -type f | wc -l)
  summary+=("$t: ${execs:-?} executions in ${seconds}s, $corpus new corpus inputs")
done
echo "== fuzz summary"
printf '%s\n' "${summary[@]}" | tee "$build/fuzz-summary.txt"
