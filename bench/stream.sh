#!/usr/bin/env bash
# Signing a large file with zorvo-sign, against `openssl cms -sign -binary -stream -nodetach`
# through the libp11 engine on the same SoftHSM2 key, and against bare SHA-256 of the same file
# (`openssl dgst -sha256`): CPU time (user + system) and peak resident memory of each whole
# command, medians of RUNS runs taken in turn (default 3), from /usr/bin/time.
#   ZORVO_STREAM_MIB  the file's size (default 1024)
# Goals: attached within 1.25x of openssl cms and under 64 MiB resident; detached at or above the
# speed of SHA-256 alone. Runs the plain build (ZORVO_BUILD_DIR, default build/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ZORVO_BUILD_DIR:-$root/build}
mib=${ZORVO_STREAM_MIB:-1024}
runs=${RUNS:-3}
missing=()
for p in time libengine-pkcs11-openssl; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
[ ${#missing[@]} -eq 0 ] || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
[ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"${ZORVO_JOBS:-2}" --target zorvo-sign >/dev/null
bash "$root/tests/support/token.sh" "$build"
set -a && . "$build/softhsm/env" && set +a

work=$build/stream-bench
mkdir -p "$work" && cd "$work"
[ "$(stat -c %s data 2>/dev/null || echo 0)" = $((mib << 20)) ] || head -c $((mib << 20)) /dev/urandom >data
cat >openssl.cnf <<EOF
openssl_conf = init
[init]
engines = engines
[engines]
pkcs11 = pkcs11
[pkcs11]
engine_id = pkcs11
dynamic_path = /usr/lib/x86_64-linux-gnu/engines-3/pkcs11.so
MODULE_PATH = $MODULE
init = 0
EOF
key="pkcs11:token=zorvo-a;object=rsa1;type=private;pin-value=$PIN"
sign=("$build/tools/zorvo-sign" sign --module "$MODULE" --cert 'pkcs11:token=zorvo-a;object=rsa1' --in data)
declare -A commands=(
  [attached]="ZORVO_PIN=$PIN ${sign[*]@Q} --out sig.pem"
  [detached]="ZORVO_PIN=$PIN ${sign[*]@Q} --out sig.pem --detached"
  [openssl-cms]="OPENSSL_CONF=openssl.cnf openssl cms -sign -binary -stream -nodetach -engine pkcs11 -keyform engine -inkey '$key' -signer $DIR/rsa1.crt.pem -in data -outform PEM -out ref.pem"
  [sha256]="openssl dgst -sha256 data"
)
order=(sha256 detached attached openssl-cms)
for ((i = 0; i < runs; i++)); do
  for name in "${order[@]}"; do
    /usr/bin/time -f "%U %S %M" -o time.out bash -c "${commands[$name]}" >/dev/null 2>&1 || { echo "$name failed" >&2; exit 1; }
    read -r user sys rss <time.out
    echo "$name $(echo "$user + $sys" | bc) $rss" >>runs.$$
  done
done
# The signatures just made verify, and the attached one covers the file.
openssl cms -verify -binary -inform PEM -in sig.pem -content data -CAfile "$DIR/rsa1.crt.pem" -partial_chain \
  -purpose any -out /dev/null 2>/dev/null || { echo "the detached signature does not verify" >&2; exit 1; }
median() { sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
printf '%-12s %10s %10s %14s\n' command "cpu s" "MB/s" "peak RSS MiB"
for name in "${order[@]}"; do
  cpu=$(awk -v n="$name" '$1 == n {print $2}' runs.$$ | median)
  rss=$(awk -v n="$name" '$1 == n {print $3}' runs.$$ | median)
  printf '%-12s %10.2f %10.0f %14.1f\n' "$name" "$cpu" "$(echo "$mib * 1.048576 / $cpu" | bc -l)" "$(echo "$rss / 1024" | bc -l)"
done
rm -f runs.$$
