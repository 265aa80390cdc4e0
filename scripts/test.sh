#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the plain build, then the
# AddressSanitizer + UndefinedBehaviorSanitizer build, both on the system's OpenSSL 3.0 and its
# ENGINE; then the provider backend on OpenSSL 4.0.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${ZORVO_JOBS:-$(nproc)}

bash scripts/setup.sh

run_suite() {
  local dir=$1; shift
  echo "== build $dir ($*)"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "== test $dir"
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 600
}

run_suite build
# Leaks count as failures; the provider's and OpenSSL's one-time allocations are not ours.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
run_suite build-asan -DZORVO_SANITIZE=ON -DZORVO_BUILD_BENCH=OFF
# The provider backend on OpenSSL 4.0.2, which has no ENGINE: built once from Debian's source
# package into a cache outside the clone, then the same suite, sanitized, against it.
openssl4=$(bash scripts/openssl.sh 4.0)
run_suite build-openssl4 -DOPENSSL_ROOT_DIR="$openssl4" -DZORVO_SANITIZE=ON -DZORVO_BUILD_BENCH=OFF
# ThreadSanitizer on the concurrency tests, and the fuzz corpora replayed and fuzzed briefly.
bash scripts/reliability.sh
echo "== all test suites passed"
