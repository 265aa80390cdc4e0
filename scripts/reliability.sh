#!/usr/bin/env bash
# Checks beyond the plain and ASan+UBSan suites: the engine claim raced by threads under
# ThreadSanitizer, then the fuzz targets (seed corpus replayed, then a short run; see fuzz/run.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${ZORVO_JOBS:-2}
tsan=${ZORVO_TSAN_BUILD_DIR:-$root/build-tsan}

echo "== build $tsan (ThreadSanitizer)"
cmake -S "$root" -B "$tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORVO_TSAN=ON -DZORVO_BUILD_BENCH=OFF \
  ${ZORVO_CMAKE_ARGS:-} >/dev/null
cmake --build "$tsan" -j"$jobs" --target zorvo_tests
bash "$root/tests/support/token.sh" "$tsan"
echo "== the engine claim under ThreadSanitizer"
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp} \
  "$tsan/tests/zorvo_tests" --gtest_filter='Concurrency.*' --gtest_repeat=5

bash "$root/fuzz/run.sh"
echo "== reliability checks passed"
