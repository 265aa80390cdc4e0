#!/usr/bin/env bash
# Installs the build into a scratch prefix and checks what a host sees: the exported
# symbols, the run-time search path, and a host program built with CMake and pkg-config.
set -euo pipefail
src=$1 build=$2 out=$3
prefix=$out/prefix
rm -rf "$out" && mkdir -p "$out"
cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$prefix/lib/libzorvopkcs11.so
fail() { echo "FAIL: $*" >&2; exit 1; }

# Run-time search path: old-style DT_RPATH, exactly the plug-in path.
rpath=$(readelf -d "$lib" | grep -E '\((RPATH|RUNPATH)\)' || true)
echo "$rpath" | grep -q '(RPATH).*\[\.:/usr/share/ZorvoScPlugin\]$' || fail "rpath: $rpath"

# Exports: only the p11 API, the C functions and globals; everything else hidden.
nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^ZORVO' | sort -u > "$out/raw"
nm -D --defined-only -C "$lib" | cut -d' ' -f3- | grep -v '^ZORVO' | sort -u > "$out/exports"
bad=$(grep -v -E '^(p11::|utils::|typeinfo for p11::|typeinfo name for p11::|vtable for p11::)' "$out/exports" \
      | grep -v -E '^(C_LoadModule|C_UnloadModule|ESS_OBJ_SN|OPENSSL_freeFunc\(void\*\)|[a-z][A-Za-z0-9_]*)$' || true)
[ -z "$bad" ] || fail "unexpected exports: $bad"
for sym in C_LoadModule C_UnloadModule sc_dlopen sc_dlsym sc_dlerror sc_dlclose; do
  grep -qx "$sym" "$out/raw" || fail "missing export $sym"
done
for sym in 'p11::CKR2Str(unsigned long)' 'p11::log_p11_error(char const\*, unsigned long)' \
           "typeinfo for p11::process_error" "p11::add_file_appender(" "OPENSSL_freeFunc(void\*)"; do
  grep -q "^$sym" "$out/exports" || fail "missing export $sym"
done
for hidden in Utf8ConsoleAppender report kRecordMagic '^std::' 'p11::logger' 'p11::widen_bytes'; do
  if grep -q "$hidden" "$out/exports"; then fail "internal symbol exported: $hidden"; fi
done

# A host built against the installed copy, with CMake and with pkg-config.
cmake -S "$src/tests/package/host" -B "$out/host" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$out/host" >/dev/null
LD_LIBRARY_PATH=$prefix/lib "$out/host/zorvo_host" | grep -q '^201:pin incorrect$' || fail "cmake host"
PKG_CONFIG_PATH=$prefix/lib/pkgconfig c++ -std=c++17 "$src/tests/package/host/main.cpp" -o "$out/pc_host" \
  $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs zorvopkcs11)
LD_LIBRARY_PATH=$prefix/lib "$out/pc_host" | grep -q '^201:pin incorrect$' || fail "pkg-config host"
echo "package: ok"
