#!/usr/bin/env bash
# Package test: installs a Sqlite3DB build into a temporary prefix, checks
# what was installed (library and SONAME links, public headers only, CMake
# package, pkg-config file, inspector), then builds and runs two consumers
# against that prefix: the CMake project beside this script (find_package)
# and a one-file program compiled with pkg-config's flags. Both print OK.
#   run_package_test.sh BUILD_DIR [SANITIZERS]
# SANITIZERS (e.g. address,undefined) must match the build's, so that the
# consumers load the sanitizer runtime the library needs.
# A cross build's tests set SQLITE3DB_CROSS_CMAKE_ARGS (toolchain, "|" between), SQLITE3DB_CXX
# (compiler and flags) and SQLITE3DB_EMULATOR: the consumers are then built
# for the target and run under the emulator.
set -euo pipefail
read -r -a emulator <<<"${SQLITE3DB_EMULATOR:-}"
IFS='|' read -r -a cross_args <<<"${SQLITE3DB_CROSS_CMAKE_ARGS:-}"  # "|" between arguments
read -r -a cxx <<<"${SQLITE3DB_CXX:-c++}"

build=$(cd "${1:?usage: run_package_test.sh BUILD_DIR [SANITIZERS]}" && pwd)
sanitize=${2:-}
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
store="sq3pkg_$$_$RANDOM"  # the consumer's store, under /mnt/data/
trap 'rm -rf "$tmp" "/mnt/data/$store"' EXIT
prefix=$tmp/prefix

fail() {
  echo "package test: $*" >&2
  exit 1
}

cmake --install "$build" --prefix "$prefix" >"$tmp/install.log" || {
  cat "$tmp/install.log" >&2
  fail "cmake --install failed"
}

# --- What was installed ------------------------------------------------------
lib=$(find "$prefix" -name 'libSqlite3DB.so.*.*.*' -type f | head -n 1)
[ -n "$lib" ] || fail "libSqlite3DB.so.X.Y.Z not installed"
libdir=$(dirname "$lib")
[ "$(readlink "$libdir/libSqlite3DB.so")" = libSqlite3DB.so.1 ] || fail "libSqlite3DB.so link"
[ -e "$libdir/libSqlite3DB.so.1" ] || fail "libSqlite3DB.so.1 link"
for h in Sqlite3DB.h ComFun.h DbData/DbData.h DbFileInfo/DbFileInfo.h platform/CBBSQL.h \
  platform/COS.h platform/CHmiMedia.h platform/MessageMoude.h platform/CbbMd5.h \
  platform/FormatPrint.h platform/PlatformSim.h; do
  [ -f "$prefix/include/Sqlite3DB/$h" ] || fail "header $h not installed"
done
for h in DbText.h PlatformSimInternal.h; do
  [ -z "$(find "$prefix" -name "$h")" ] || fail "private header $h installed"
done
[ -f "$libdir/cmake/Sqlite3DB/Sqlite3DBConfig.cmake" ] || fail "Sqlite3DBConfig.cmake"
[ -f "$libdir/cmake/Sqlite3DB/Sqlite3DBConfigVersion.cmake" ] || fail "version file"
[ -f "$libdir/pkgconfig/sqlite3db.pc" ] || fail "sqlite3db.pc"
"${emulator[@]}" "$prefix/bin/sqlite3db-inspect" --help | grep -q '^Usage: sqlite3db-inspect' ||
  fail "installed sqlite3db-inspect does not run"

flags=""
flag_args=()  # only when needed: they would replace a cross toolchain's own
if [ -n "$sanitize" ]; then
  flags="-fsanitize=$sanitize"
  flag_args=("-DCMAKE_CXX_FLAGS=$flags" "-DCMAKE_EXE_LINKER_FLAGS=$flags")
fi

# --- CMake consumer ------------------------------------------------------------
# A cross toolchain searches only its sysroot for packages: name the package's
# directory itself.
[ ${#cross_args[@]} = 0 ] || cross_args+=("-DSqlite3DB_DIR=$libdir/cmake/Sqlite3DB")
cmake -S "$here" -B "$tmp/consumer" -DCMAKE_PREFIX_PATH="$prefix" "${cross_args[@]}" \
  "${flag_args[@]}" >"$tmp/consumer.log" 2>&1 || {
  cat "$tmp/consumer.log" >&2
  fail "configuring the find_package consumer failed"
}
cmake --build "$tmp/consumer" >>"$tmp/consumer.log" 2>&1 || {
  cat "$tmp/consumer.log" >&2
  fail "building the find_package consumer failed"
}
out=$(LD_LIBRARY_PATH="$libdir" "${emulator[@]}" "$tmp/consumer/consumer" "$store")
[ "$out" = OK ] || fail "find_package consumer printed: $out"

# --- pkg-config consumer ---------------------------------------------------------
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046,SC2086
"${cxx[@]}" -std=c++17 $flags "$here/pkgconfig_main.cpp" $(pkg-config --cflags --libs sqlite3db) \
  -o "$tmp/pkgconfig_consumer" || fail "building with pkg-config's flags failed"
out=$(LD_LIBRARY_PATH="$libdir" "${emulator[@]}" "$tmp/pkgconfig_consumer")
[ "$out" = OK ] || fail "pkg-config consumer printed: $out"

echo "package test passed: $prefix"
