#!/usr/bin/env bash
# Instructions that korvaned spends on one Execute of a statement it has run
# before, counted by callgrind (exact, whatever else the machine is doing).
#
#   bench/execute-instructions.sh BUILD_DIR [N]
#
# korvaned runs under callgrind on a SQLite file (KVN_DATABASE=:memory: for an
# in-memory database, KVN_ODBC=<connection string> for another data source,
# where a table "counter" is made anew); SelectBench --execute-on sends the same UPDATE with
# Execute N times, then 3N times, each in a run of its own. The difference
# between the two totals, divided by 2N, is the cost of one more Execute: the
# start, the registration and the connection cancel out. Needs valgrind.
set -euo pipefail
build=${1:?usage: execute-instructions.sh BUILD_DIR [N]}
n=${2:-500}
korvaned=$build/tools/korvaned
driver=$build/bench/SelectBench
[ -x "$korvaned" ] && [ -x "$driver" ] || { echo "no korvaned or SelectBench in $build" >&2; exit 1; }
command -v valgrind >/dev/null || { echo "valgrind is not installed" >&2; exit 77; }

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# Total instructions of a korvaned that served `count` Executes.
run() {
  local count=$1 out=$dir/callgrind.$1
  rm -f "$dir/port" "$dir/db"
  valgrind --tool=callgrind --callgrind-out-file="$out" "$korvaned" --port 0 --port-file "$dir/port" \
    ${KVN_ODBC:+--odbc "$KVN_ODBC"} --database "${KVN_DATABASE:-$dir/db}" --hb-mode unicast --hb-address 127.0.0.1 --hb-port 9 --log-level 0 \
    2>"$dir/valgrind.$count" &
  local pid=$!
  for _ in $(seq 600); do [ -s "$dir/port" ] && break; sleep 0.1; done
  "$driver" --execute-on "$(cat "$dir/port")" --executes "$count"
  kill -TERM "$pid"
  wait "$pid" || true
  grep -E '^(summary|totals):' "$out" | head -n 1 | awk '{print $2}'
}

first=$(run "$n")
second=$(run $((3 * n)))
echo "korvaned: $first instructions with $n Executes, $second with $((3 * n))"
echo "per Execute of a repeated statement: $(( (second - first) / (2 * n) )) instructions"
