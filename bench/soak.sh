#!/usr/bin/env bash
# Soak: 2,000 loads and unloads of OpenSC (a provider really unloaded) through Module, then 5,000
# streamed signatures under one login on SoftHSM2; prints heap (mallinfo2) and RSS at the start
# and the end of each and fails when either grew past its bound. Counts: SOAK_LOADS,
# SOAK_SIGNATURES. Runs the plain build (ZORVO_BUILD_DIR, default build/), building it if needed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ZORVO_BUILD_DIR:-$root/build}
[ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"${ZORVO_JOBS:-2}" --target zorvo_soak >/dev/null
bash "$root/tests/support/token.sh" "$build"
"$build/bench/zorvo_soak"
