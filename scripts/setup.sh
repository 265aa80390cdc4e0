#!/usr/bin/env bash
# Installs what the build and the tests need on a fresh Debian 12 machine.
# Idempotent: packages already present and a cached log4cplus build are skipped.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cache=${ZORVO_CACHE:-$root/.cache}
l4c_prefix=$cache/log4cplus-wide

sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd=sudo

packages=(
  build-essential cmake pkg-config dpkg-dev
  libssl-dev openssl libp11-kit-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libgcrypt20-dev
  softhsm2 opensc libengine-gost-openssl
  clang libclang-rt-14-dev libnsl-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# log4cplus: Debian ships only the narrow-character build; the library needs the
# wide one, built from Debian's own source package into a project-local prefix.
if [ ! -f "$l4c_prefix/.complete" ]; then
  echo "setup: building wide-character log4cplus into $l4c_prefix"
  if ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ /etc/apt/sources.list 2>/dev/null; then
    src=/etc/apt/sources.list.d/debian.sources
    if [ -f "$src" ]; then
      sed 's/^Types: deb$/Types: deb-src/' "$src" | $sudo_cmd tee /etc/apt/sources.list.d/zorvo-deb-src.sources >/dev/null
    else
      echo "deb-src http://deb.debian.org/debian bookworm main" | $sudo_cmd tee /etc/apt/sources.list.d/zorvo-deb-src.list >/dev/null
    fi
  fi
  $sudo_cmd apt-get update -qq
  work=$cache/log4cplus-src
  rm -rf "$work" && mkdir -p "$work"
  (cd "$work" && apt-get source -qq log4cplus >/dev/null 2>&1)
  srcdir=$(find "$work" -maxdepth 1 -mindepth 1 -type d -name 'log4cplus-*' | head -n 1)
  cmake -S "$srcdir" -B "$work/build" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$l4c_prefix" -DUNICODE=ON -DBUILD_SHARED_LIBS=ON \
    -DLOG4CPLUS_BUILD_TESTING=OFF -DBUILD_TESTING=OFF -DWITH_UNIT_TESTS=OFF \
    -DLOG4CPLUS_BUILD_LOGGINGSERVER=OFF -DLOG4CPLUS_ENABLE_DECORATED_LIBRARY_NAME=ON \
    -DCMAKE_INSTALL_LIBDIR=lib >/dev/null
  cmake --build "$work/build" -j"$(nproc)" >/dev/null
  cmake --install "$work/build" >/dev/null
  rm -rf "$work"
  touch "$l4c_prefix/.complete"
fi
echo "setup: done (log4cplus at $l4c_prefix)"
