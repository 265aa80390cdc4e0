#!/usr/bin/env bash
# Reliability checks beyond the ordinary test suite (whose fault sweep and misbehaving-provider
# tests run in the plain and ASan builds): the concurrency test under ThreadSanitizer, then the
# fuzz targets (seed corpus replay and a short fuzz run, FUZZ_SECONDS each; see fuzz/run.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${ZORVO_JOBS:-2}
tsan=${ZORVO_TSAN_BUILD_DIR:-$root/build-tsan}

echo "== build $tsan (ThreadSanitizer)"
cmake -S "$root" -B "$tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORVO_TSAN=ON -DZORVO_BUILD_BENCH=OFF \
  ${ZORVO_CMAKE_ARGS:-} >/dev/null
cmake --build "$tsan" -j"$jobs" --target reliability_tests
exe=$(find "$tsan" -name reliability_tests -type f -perm -u+x | head -n 1)
echo "== concurrency under ThreadSanitizer"
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/reliability/tsan.supp} "$exe" --gtest_filter='Concurrency.*' --gtest_repeat=5

bash "$root/fuzz/run.sh"
echo "== reliability checks passed"
