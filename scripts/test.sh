#!/usr/bin/env bash
# Installs what the build lacks (on Debian), configures, builds and runs the
# test suite. Root only: as another user it says why and stops before building.
#   BUILD_DIR   build directory (default: build)
#   CMAKE_ARGS  extra configure arguments (e.g. -DSQLITE3DB_SANITIZE=address,undefined)
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" != 0 ]; then
  echo "scripts/test.sh: run it as root: the tests create and remove directories under /mnt/data/, and only root can install the Debian packages the build may lack" >&2
  exit 1
fi

BUILD_DIR=${BUILD_DIR:-build}
# shellcheck source=scripts/deps.sh
. scripts/deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
# shellcheck disable=SC2086
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${CMAKE_ARGS:-}
cmake --build "$BUILD_DIR" -j "$jobs"
ctest --test-dir "$BUILD_DIR" --output-on-failure -j "$jobs" ${CTEST_ARGS:-}
