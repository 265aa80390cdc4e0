#!/usr/bin/env bash
# Builds OpenSSL 4.0.2 (Debian's experimental suite) or 3.5.7 (Debian 13) from Debian's source
# package into a cache outside the clone, which later runs and CI reuse, and prints the prefix.
# usage: openssl.sh 4.0|3.5     cache: ZORVO_OPENSSL_CACHE (default ~/.cache/zorvo-openssl)
set -euo pipefail
case ${1:-} in
  4.0) version=4.0.2-1 ;;
  3.5) version=3.5.7-1~deb13u2 ;;
  *) echo "usage: $0 4.0|3.5" >&2 && exit 2 ;;
esac
cache=${ZORVO_OPENSSL_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zorvo-openssl}
prefix=$cache/$1
[ -f "$prefix/.complete" ] && echo "$prefix" && exit 0

sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd=sudo
# Source packages of the newer suites, from the same mirror and keyring as the machine's own entry.
# The entry stays in the cache, not among the machine's sources: apt uses it for these two calls
# only, and nothing else the machine fetches comes from those suites.
mkdir -p "$cache"
list=$cache/openssl-src.sources
entry=/etc/apt/sources.list.d/debian.sources
uri=$(sed -n 's/^URIs: *//p' "$entry" 2>/dev/null | head -n 1)
key=$(sed -n 's/^Signed-By: *//p' "$entry" 2>/dev/null | head -n 1)
printf 'Types: deb-src\nURIs: %s\nSuites: trixie experimental\nComponents: main\nSigned-By: %s\n' \
  "${uri:-http://deb.debian.org/debian}" "${key:-/usr/share/keyrings/debian-archive-keyring.gpg}" >"$list"
apt_list=(-o Dir::Etc::sourcelist="$list" -o Dir::Etc::sourceparts=- -o APT::Get::List-Cleanup=0)
$sudo_cmd apt-get update -qq "${apt_list[@]}"
work=$cache/src-$1
rm -rf "$work" && mkdir -p "$work"
(cd "$work" && apt-get source -qq "${apt_list[@]}" "openssl=$version" >/dev/null)
dir=$(find "$work" -maxdepth 1 -mindepth 1 -type d -name 'openssl-*' | head -n 1)
[ -n "$dir" ] || { echo "openssl.sh: no source package openssl $version" >&2; exit 1; }
echo "openssl.sh: building $(basename "$dir") into $prefix (about 5 minutes on 2 cores)" >&2
log=$cache/build-$1.log
(cd "$dir" && ./Configure --prefix="$prefix" --libdir=lib shared no-docs no-tests &&
  make -j"${ZORVO_JOBS:-$(nproc)}" && make install_sw) >"$log" 2>&1 || { tail -n 30 "$log" >&2; exit 1; }
rm -rf "$work"
touch "$prefix/.complete"
echo "$prefix"
