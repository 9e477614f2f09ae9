#!/usr/bin/env bash
# CI: the library, its tests and tools built for the panels' 32-bit ARM
# (armhf) and the whole test suite run under qemu-arm through CTest
# (CMAKE_CROSSCOMPILING_EMULATOR), on the machine's own file systems. Sets
# up the cross compiler, qemu-user and the armhf sysroot when missing.
# Ends with the armhf summary line.
#   BUILD_DIR    build directory (default: build-armhf)
#   CTEST_ARGS   extra ctest arguments
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR=${BUILD_DIR:-build-armhf}
# The sysroot lives outside the checkout: the cross linker's flags cannot
# carry a path with a blank, and the tests that run the inspector as user
# "nobody" under qemu-arm need a sysroot that user can read, which a checkout
# in a home directory (0700) is not.
export ARMHF_SYSROOT=${ARMHF_SYSROOT:-/var/tmp/sqlite3db-armhf-sysroot}
export SQLITE3DB_ARMHF_SYSROOT="$ARMHF_SYSROOT"
jobs=$(nproc 2>/dev/null || echo 2)
t0=$(date +%s)
bash scripts/armhf-setup.sh
cmake -S . -B "$BUILD_DIR" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-armhf.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$BUILD_DIR" -j "$jobs"
t1=$(date +%s)

log="$BUILD_DIR/ctest-armhf.log"
rc=0
# shellcheck disable=SC2086
ctest --test-dir "$BUILD_DIR" --output-on-failure -j "$jobs" ${CTEST_ARGS:-} 2>&1 |
  tee "$log" || rc=$?
t2=$(date +%s)

summary=$(grep -E '^[0-9]+% tests passed' "$log" || echo "no test summary")
echo "armhf (qemu-arm): $summary; set-up and build $((t1 - t0)) s, tests $((t2 - t1)) s"
exit "$rc"
