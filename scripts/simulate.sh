#!/usr/bin/env bash
# The panel simulator: installs what the build lacks (when run as root on
# Debian), builds panel-sim in build/ and runs it with the arguments given,
# e.g.  scripts/simulate.sh --duration 90m --rate 20
# Relative paths in the arguments are taken from where it is called.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

(cd "$root" && . scripts/deps.sh)
log="$root/build/panel-sim-build.log"
mkdir -p "$root/build"
echo "Building panel-sim (log: build/panel-sim-build.log) ..." >&2
if ! { cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
       cmake --build "$root/build" --target panel-sim -j "$(nproc 2>/dev/null || echo 2)"; } \
       >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  echo "The build failed; the whole log is $log" >&2
  exit 2
fi
exec "$root/build/examples/panel-sim" "$@"
