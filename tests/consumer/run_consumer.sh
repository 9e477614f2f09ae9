#!/usr/bin/env bash
# Builds tests/consumer, a separate host project that add_subdirectory()s the
# library and links the Sqlite3DB target alone, in a temporary directory; then
# runs the consumer. Fails when configuring, building or running fails, or
# when the consumer does not report success.
#   CONSUMER_CMAKE_ARGS  extra configure arguments (e.g. -DCMAKE_CXX_COMPILER=clang++)
#   SQLITE3DB_CROSS_CMAKE_ARGS, SQLITE3DB_EMULATOR  set by a cross build's
#       tests: the consumer is built with the same toolchain and run under
#       the emulator
set -euo pipefail
read -r -a emulator <<<"${SQLITE3DB_EMULATOR:-}"
IFS='|' read -r -a cross_args <<<"${SQLITE3DB_CROSS_CMAKE_ARGS:-}"  # "|" between arguments

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/sqlite3db_consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT

# shellcheck disable=SC2086
cmake -S "$here" -B "$work" -DSQLITE3DB_ROOT="$root" -DCMAKE_BUILD_TYPE=Release \
  ${cross_args[@]+"${cross_args[@]}"} ${CONSUMER_CMAKE_ARGS:-}
cmake --build "$work" -j 2

# The library's own tests are not part of a host's build.
if [ -e "$work/sqlite3db/tests/Sqlite3DB_tests" ]; then
  echo "run_consumer: the library built its tests inside a host project" >&2
  exit 1
fi

output=$("${emulator[@]}" "$work/consumer")
echo "$output"
case "$output" in
  "consumer: Sqlite3DB ok,"*) ;;
  *) echo "run_consumer: unexpected output" >&2; exit 1 ;;
esac
echo "run_consumer: ok"
