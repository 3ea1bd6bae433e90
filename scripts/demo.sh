#!/usr/bin/env bash
# Installs what is needed, builds the service and the command-line client,
# starts korvaned on a demo SQLite database in a temporary directory on a
# free loopback port, runs a kvnsql session that shows each kind of
# operation, and stops korvaned again.
#
# Usage: scripts/demo.sh   (KVN_JOBS sets the build's parallelism)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=${KVN_JOBS:-$(nproc)}
build=$root/build-demo

scripts/install-deps.sh build

echo "== building korvaned and kvnsql (Release) in $build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKVN_BUILD_TOOLS=ON -DKVN_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target korvaned kvnsql >/dev/null

work=$(mktemp -d -t korvane-demo.XXXXXX)
service_pid=""
cleanup() {
  if [ -n "$service_pid" ]; then
    kill "$service_pid" 2>/dev/null || true
    wait "$service_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# Port 0: the system picks a free port and korvaned writes it to the port
# file. Rows travel in blocks of 4 so that the select below needs several.
# The heartbeat goes to loopback only.
"$build/tools/korvaned" --listen 127.0.0.1 --port 0 --port-file "$work/port" \
  --database "$work/demo.db" --block-rows 4 --hb-mode unicast --log-level 2 \
  2>"$work/korvaned.log" &
service_pid=$!
for _ in $(seq 100); do
  [ -s "$work/port" ] && break
  kill -0 "$service_pid" 2>/dev/null || { cat "$work/korvaned.log" >&2; exit 1; }
  sleep 0.1
done
[ -s "$work/port" ] || { echo "korvaned did not start" >&2; cat "$work/korvaned.log" >&2; exit 1; }
port=$(cat "$work/port")
echo "== korvaned listens on 127.0.0.1:$port, database $work/demo.db"
echo "== kvnsql session"
echo

# The session fails on purpose once (the last statement); its status is 1.
"$build/tools/kvnsql/kvnsql" --host 127.0.0.1 --port "$port" --app kvnsql-demo --echo --file - 2>&1 <<'SQL' || true
\echo == A table, two rows inserted with bound values, eight more in one statement
create table fruit (id integer primary key, name text, price real, picked timestamp);
\bind long:1 text:'apple' double:1.20 timestamp:'2026-09-14 08:30:00'
insert into fruit values (?, ?, ?, ?);
\bind long:2 'pear' 2.25 null
insert into fruit values (?, ?, ?, ?);
insert into fruit (id, name, price)
  with recursive n(i) as (select 3 union all select i + 1 from n where i < 10)
  select i, 'fruit ' || i, i * 0.5 from n;
\echo
\echo == A select of ten rows, which the service sends in blocks of four
select id, name, price, picked from fruit order by id;
update fruit set price = price * 2 where id > 8;
select count(*) as fruits, sum(price) as total, max(picked) as latest from fruit;
\echo
\echo == Schema questions
\exists fruit
\exists fruit price
\exists vegetable
\columns fruit
\echo
\echo == A failing statement: the library's error text, then the service's ODBC text
select colour from fruit;
SQL

echo
echo "== what korvaned did (its log at level 2)"
sed -e 's/^/   /' "$work/korvaned.log"
echo "== stopping korvaned"
