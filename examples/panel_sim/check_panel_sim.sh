#!/usr/bin/env bash
# Short run of panel-sim, checked from outside: ten minutes of panel time at
# 10 records/s per store (6000 records each), so that the alarm history rolls
# over twelve times and its file limit drops the oldest files.
#
# What is checked:
#  - exit code 0 and "result: all N checks hold";
#  - every store accepted 6000 records, the alarm history keeps 5 files;
#  - with the sqlite3 shell, on the alarm files the summary names:
#      * the oldest kept file is not file 0 (retention removed files);
#      * count(*) over all files equals the summary's "rows in the files";
#      * the IDs are distinct, and the newest is the last accepted alarm (6000);
#      * count(*) = 6000 - first + 1 - deleted, where first is the oldest kept
#        record, MinID + 1 of the oldest file's DBInfo row (a file starts at the
#        previous file's last ID), and deleted is the operator's deletes inside
#        first..6000 as the summary reports them: every accepted alarm that
#        retention and the operator left is there, once;
#      * the rows with acked = 1 equal the summary's acknowledged count.
# Usage: check_panel_sim.sh PATH-TO-panel-sim
# A cross-built panel-sim runs under the command in SQLITE3DB_EMULATOR.
set -euo pipefail

sim=$1
read -r -a emulator <<<"${SQLITE3DB_EMULATOR:-}"
work=$(mktemp -d /tmp/panel-sim-test-XXXXXX)
out="$work.out"
flash=""
cleanup() {
    rm -rf "$work" "$out"
    case "$flash" in /mnt/data/panel-sim-test-*) rm -rf "$flash" ;; esac
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    echo "--- summary ---" >&2
    cat "$out" >&2
    exit 1
}

rc=0
"${emulator[@]}" "$sim" --duration 10m --rate 10 --seed 3 --work-dir "$work" >"$out" || rc=$?
alarm_dir=$(sed -n 's/^alarm history (store [0-9]*) on [^:]*: //p' "$out")
case "$alarm_dir" in /mnt/data/*) flash=$(dirname "$alarm_dir") ;; esac
[ "$rc" = 0 ] || fail "panel-sim exited with $rc"
grep -Eq '^result: all [0-9]+ checks hold' "$out" || fail "not every check holds"
[ "$(grep -c '^  records accepted  *6000$' "$out")" = 3 ] || fail "a store did not accept 6000"
[ -d "$alarm_dir" ] || fail "no alarm directory in the summary"

# The alarm store's block of the summary.
block=$(sed -n '/^alarm history (store/,/^$/p' "$out")
grep -q '^  files  *5$' <<<"$block" || fail "the alarm history does not keep 5 files"
rows=$(sed -n 's/.*rows in the files: \([0-9]*\) = IDs.*/\1/p' <<<"$block")
deleted=$(sed -n 's/.* less \([0-9]*\) deleted by the operator.*/\1/p' <<<"$block")
acked=$(sed -n 's/.*acknowledged alarms in the files: \([0-9]*\),.*/\1/p' <<<"$block")
[ -n "$rows" ] && [ -n "$deleted" ] && [ -n "$acked" ] || fail "summary lines missing"

files=$(ls "$alarm_dir" | grep -E '^alarm_[0-9]+\.db$' | sort -t_ -k2 -n)
oldest=$(head -n1 <<<"$files")
[ "$oldest" != alarm_0.db ] || fail "retention removed no file"
first=$(( $(sqlite3 "$alarm_dir/$oldest" 'select MinID from DBInfo where version = 1') + 1 ))

count=0 distinct_ids="" newest=0 acked_rows=0
for f in $files; do
    db="$alarm_dir/$f"
    count=$(( count + $(sqlite3 "$db" 'select count(*) from alarm') ))
    acked_rows=$(( acked_rows + $(sqlite3 "$db" 'select count(*) from alarm where acked = 1') ))
    max=$(sqlite3 "$db" 'select ifnull(max(id), 0) from alarm')
    [ "$max" -gt "$newest" ] && newest=$max
    distinct_ids+=$(sqlite3 "$db" 'select id from alarm')$'\n'
done
distinct=$(grep -c . <<<"$(sort -u <<<"$distinct_ids")")

[ "$count" = "$rows" ] || fail "alarm files hold $count rows, the summary says $rows"
[ "$distinct" = "$count" ] || fail "alarm files hold $count rows but $distinct distinct IDs"
[ "$newest" = 6000 ] || fail "newest alarm in the files is $newest, not 6000"
expected=$(( 6000 - first + 1 - deleted ))
[ "$count" = "$expected" ] ||
    fail "alarm files hold $count rows; accepted alarms $first..6000 less $deleted deleted = $expected"
[ "$acked_rows" = "$acked" ] || fail "$acked_rows acknowledged rows, the summary says $acked"

echo "panel-sim: alarm files hold IDs $first..6000 less $deleted deleted ($count rows, $acked acknowledged)"
