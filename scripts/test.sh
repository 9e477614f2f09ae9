#!/usr/bin/env bash
# Installs what the build lacks (when run as root on Debian), configures,
# builds and runs the test suite.
#   BUILD_DIR   build directory (default: build)
#   CMAKE_ARGS  extra configure arguments (e.g. -DSQLITE3DB_SANITIZE=address,undefined)
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR=${BUILD_DIR:-build}
# shellcheck source=scripts/deps.sh
. scripts/deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
# shellcheck disable=SC2086
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${CMAKE_ARGS:-}
cmake --build "$BUILD_DIR" -j "$jobs"
ctest --test-dir "$BUILD_DIR" --output-on-failure -j "$jobs" ${CTEST_ARGS:-}
