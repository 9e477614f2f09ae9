#!/usr/bin/env bash
# CI: a bounded libFuzzer run of each fuzz target (fuzz/): the store's scan of
# one file, the inspector's reading of one file and the connection's compiled
# inserts against the engine's own run of the text, built with Debian's clang
# with the address and undefined-behaviour sanitizers. Installs clang and its
# fuzzer runtime when missing (as root). Fails on any crash, hang, leak or
# sanitizer report; the input is left in $BUILD_DIR/artifacts/<target>/ and
# belongs in fuzz/regressions/<target>/ once the cause is fixed.
#   BUILD_DIR     build directory (default: build-fuzz)
#   FUZZ_RUNS     inputs each target runs (default: 150000)
#   FUZZ_SECONDS  the most time each target may take (default: 120); the
#                 three run side by side. 150000 inputs take the scan
#                 about 25 s and the inspector about 45 s of CPU time; on a
#                 busy machine the time bound stops them with fewer inputs,
#                 which prints a warning, not a failure.
#   FUZZ_MIN_EXECS  executions each target should reach (default: 100000)
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR=${BUILD_DIR:-build-fuzz}
FUZZ_RUNS=${FUZZ_RUNS:-150000}
FUZZ_SECONDS=${FUZZ_SECONDS:-120}
FUZZ_MIN_EXECS=${FUZZ_MIN_EXECS:-100000}
# shellcheck source=scripts/deps.sh
. scripts/deps.sh

runtime() { ls /usr/lib/llvm-14/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; }
missing=""
command -v clang++-14 >/dev/null || missing="clang-14"
runtime || missing="$missing libclang-rt-14-dev"
if [ -n "$missing" ]; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
    echo "Installing: $missing"
    apt-get update -qq
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing
  else
    echo "Missing Debian packages: $missing (run as root to install them)" >&2
    exit 1
  fi
fi

cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
  -DSQLITE3DB_FUZZ=ON -DSQLITE3DB_SANITIZE=address,undefined \
  -DSQLITE3DB_BUILD_TESTS=OFF -DSQLITE3DB_BUILD_TOOLS=OFF -DSQLITE3DB_INSTALL=OFF
cmake --build "$BUILD_DIR" -j "$(nproc 2>/dev/null || echo 2)" \
  --target sqlite3db_fuzz_scan sqlite3db_fuzz_inspect sqlite3db_fuzz_insert sqlite3db_fuzz_seeds

# Fresh seeds written by the library, the crafted shapes, and the kept inputs.
seeds="$BUILD_DIR/seeds"
rm -rf "$seeds" "$BUILD_DIR/corpus" "$BUILD_DIR/artifacts" "$BUILD_DIR"/fuzz-*.log
"$BUILD_DIR/fuzz/sqlite3db_fuzz_seeds" "$seeds"

# A small quarantine and no malloc fill keep the many short SQLite
# connections cheap; every other check of the sanitizers stays on.
export ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=1:malloc_context_size=2:max_malloc_fill_size=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
pids=()
for target in scan inspect insert; do
  # Both file targets' connections refuse views, so endless schema code is a seed of both.
  dirs=("$seeds/store" "$seeds/crafted" "$seeds/endless" "fuzz/regressions/$target")
  extra=()
  if [ "$target" = insert ]; then
    dirs=("fuzz/regressions/$target")  # insert texts, not files
    extra=(-dict=fuzz/insert.dict)
  fi
  mkdir -p "$BUILD_DIR/corpus/$target" "$BUILD_DIR/artifacts/$target"
  "$BUILD_DIR/fuzz/sqlite3db_fuzz_$target" "$BUILD_DIR/corpus/$target" "${dirs[@]}" \
    -runs="$FUZZ_RUNS" -max_total_time="$FUZZ_SECONDS" -timeout=10 -rss_limit_mb=1024 -close_fd_mask=3 \
    -print_final_stats=1 -artifact_prefix="$BUILD_DIR/artifacts/$target/" "${extra[@]}" \
    >"$BUILD_DIR/fuzz-$target.log" 2>&1 &
  pids+=($!)
done

status=0
i=0
for target in scan inspect insert; do
  rc=0
  wait "${pids[$i]}" || rc=$?
  i=$((i + 1))
  log="$BUILD_DIR/fuzz-$target.log"
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  took=$(sed -n 's/^Done \([0-9]*\) runs in \([0-9]*\) second.*/\2/p' "$log" | tail -1)
  echo "fuzz $target: ${execs:-?} executions in ${took:-$FUZZ_SECONDS}s, exit $rc"
  if [ "$rc" != 0 ]; then
    status=1
    grep -E "ERROR|SUMMARY|Test unit written|timeout|out-of-memory" "$log" | head -20 >&2 || true
    echo "fuzz $target failed: the full log is $log; the input is in $BUILD_DIR/artifacts/$target/" >&2
  elif [ "${execs:-0}" -lt "$FUZZ_MIN_EXECS" ]; then
    echo "warning: fuzz $target reached fewer than $FUZZ_MIN_EXECS executions" >&2
  fi
done
exit $status
