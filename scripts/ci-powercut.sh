#!/usr/bin/env bash
# CI: the full power-cut runs. A cut at every event of the short scripted run
# under each of the three power-cut models, cuts at random events of longer
# runs, 100 SIGKILLs of a store on the real clock, and failed writes, syncs
# and opens at every operation of a flush with a split. The default test run
# (ctest) takes a sample of the same tests. Prints the summary lines and the
# cost of the journal and sync settings.
#   BUILD_DIR  build directory (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR=${BUILD_DIR:-build}
# shellcheck source=scripts/deps.sh
. scripts/deps.sh

cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$BUILD_DIR" -j "$(nproc 2>/dev/null || echo 2)" \
  --target Sqlite3DB_tests sqlite3db-durability-cost

out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
SQLITE3DB_POWERCUT_FULL=1 "$BUILD_DIR/tests/Sqlite3DB_tests" \
  --gtest_filter='CrashVfs*:PowerCut*:ProcessKill*:IoFault*' >"$out" 2>&1 || status=$?
grep -E 'summary|^\[  (PASSED|FAILED)' "$out" || true
if [ "$status" -ne 0 ]; then
  grep -E 'Failure|lost|not ' "$out" | head -40 || true
  exit "$status"
fi
"$BUILD_DIR/tests/sqlite3db-durability-cost" "${TMPDIR:-/tmp}/sqlite3db-durability-cost.$$/" 20 50
