#!/usr/bin/env bash
# Runs a test program as if its build tree lay where only its owner may enter
# (a checkout under a home directory of mode 0700, or in a mktemp -d
# directory): the inspector's tests run the inspector as user "nobody", who
# cannot reach anything there. In a private mount namespace, an empty
# directory of mode 0700 covers BUILD_DIR and gets copies of the test program
# and the FILEs it needs at their usual paths; outside the namespace nothing
# changes. Needs root (the namespace, user nobody): skips otherwise (exit 77).
#   private_build_test.sh BUILD_DIR TEST_PROGRAM [FILE...] [-- TEST_ARGS...]
# A cross-built TEST_PROGRAM runs through the command in SQLITE3DB_EMULATOR.
set -euo pipefail

if [ "${1:-}" != --inside ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "skipped: needs root (a private mount namespace, and user nobody for the inspector)"
    exit 77
  fi
  if ! unshare --mount --propagation private true 2>/dev/null; then
    echo "skipped: no private mount namespace here (unshare --mount failed)"
    exit 77
  fi
  exec unshare --mount --propagation private bash "$0" --inside "$@"
fi
shift

build=${1:?usage: private_build_test.sh BUILD_DIR TEST_PROGRAM [FILE...] [-- TEST_ARGS...]}
build=${build%/}
program=$2
shift 2
files=("$program")
while [ $# -gt 0 ] && [ "$1" != -- ]; do
  files+=("$1")
  shift
done
[ $# -eq 0 ] || shift

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
for file in "${files[@]}"; do
  case "$file" in
    "$build"/*) ;;
    *) echo "private_build_test: $file is not under $build" >&2 && exit 2 ;;
  esac
  relative=${file#"$build"/}
  mkdir -p "$stage/$(dirname "$relative")"
  cp -L "$file" "$stage/$relative"
done

mount -t tmpfs -o mode=0700 private-build "$build"
cp -a "$stage/." "$build/"
chmod 0700 "$build"
# The condition under test: nobody cannot reach the programs.
if setpriv --reuid=65534 --regid=65534 --clear-groups test -x "$program"; then
  echo "private_build_test: user nobody can still reach $program" >&2
  exit 1
fi

read -r -a emulator <<<"${SQLITE3DB_EMULATOR:-}"
"${emulator[@]}" "$program" "$@"
