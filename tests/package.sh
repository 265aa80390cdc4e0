#!/usr/bin/env bash
# The installed package as a host meets it: what the library exports and where it looks at run
# time, and examples/ built against the install (CMake and pkg-config) signing on SoftHSM2.
# usage: package.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 build=$2 out=$2/package-test
fail() { echo "FAIL: $*" >&2; exit 1; }
rm -rf "$out" && mkdir -p "$out" && cd "$out"
cmake --install "$build" --prefix "$out/prefix" >/dev/null
lib=$out/prefix/lib/libzorvopkcs11.so
readelf -d "$lib" | grep -q '(RPATH).*\[\.:/usr/share/ZorvoScPlugin\(:[^.:][^:]*\)\?\]$' || fail "run-time path: $(readelf -d "$lib" | grep PATH)"
nm -D --defined-only -C "$lib" | cut -d' ' -f3- >exports
bad=$(grep -v -E '^(p11::|utils::|typeinfo (name )?for p11::|vtable for p11::|C_LoadModule|C_UnloadModule|ESS_OBJ_SN|OPENSSL_freeFunc\(void\*\)|[a-z][A-Za-z0-9_]*$)' exports || true)
[ -z "$bad" ] || fail "exported by mistake: $bad"
for sym in C_LoadModule sc_dlopen 'p11::Module::Module(' 'typeinfo for p11::process_error'; do
  grep -qF "$sym" exports || fail "not exported: $sym"
done

# The installed tool looks for nothing in the current directory.
readelf -d "$out/prefix/bin/zorvo-sign" | grep -q '(RPATH).*\[\$ORIGIN/\.\./lib\(:[^.:][^:]*\)\?\]$' || fail "tool path: $(readelf -d "$out/prefix/bin/zorvo-sign" | grep PATH)"

# A host built with CMake, and one with pkg-config whose RPATH (not RUNPATH: that would not serve
# the library's own needs) finds the install without LD_LIBRARY_PATH, as the guide advises.
cmake -S "$src/examples" -B cmake-host -DCMAKE_PREFIX_PATH="$out/prefix" >/dev/null && cmake --build cmake-host >/dev/null
c++ -std=c++17 "$src/examples/sign_example.cpp" -o ./pc-host -Wl,--disable-new-dtags,-rpath,"$out/prefix/lib" \
  $(PKG_CONFIG_PATH=$out/prefix/lib/pkgconfig pkg-config --cflags --libs zorvopkcs11)
./pc-host --help >/dev/null || fail "an RPATH in the host does not find the install"
set -a && . "$build/softhsm/env" && set +a
cp -r "$DIR/tokens" tokens && printf 'directories.tokendir = %s/tokens\n' "$out" >softhsm2.conf
export SOFTHSM2_CONF=$out/softhsm2.conf
export LD_LIBRARY_PATH=$out/prefix/lib ZORVO_PIN=$PIN
printf 'example document\n' >doc.txt
for host in ./cmake-host/sign_example ./pc-host; do
  "$host" "$MODULE" | grep -q '^  certificate "rsa1": Zorvo RSA One' || fail "$host: list"
  "$host" "$MODULE" zorvo-a rsa1 doc.txt >both.pem || fail "$host: sign"
  # Two PEM blocks: the detached signature, then the attached one.
  awk '/BEGIN CMS/{n++} {print > ("sig" n ".pem")}' both.pem
  for n in 1 2; do
    args=(cms -verify -binary -inform PEM -in "sig$n.pem" -CAfile "$DIR/rsa1.crt.pem" -partial_chain -purpose any -out content)
    [ "$n" = 1 ] && args+=(-content doc.txt)
    openssl "${args[@]}" 2>/dev/null && cmp -s content doc.txt || fail "$host: signature $n"
  done
done
echo "package: ok"
