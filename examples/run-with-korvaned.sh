#!/usr/bin/env bash
# Runs an example program against a korvaned of its own, on loopback, in a
# temporary directory, then stops korvaned.
#
#   run-with-korvaned.sh KORVANED MODE PROGRAM
#
# MODE: --sqlite    korvaned on a SQLite file; PROGRAM is given HOST PORT;
#       --postgres  korvaned on a PostgreSQL server started for the run
#                   (exit 77, "skipped", where PostgreSQL is not installed);
#       --restart   korvaned on a SQLite file, stopped once PROGRAM says
#                   "link up" and started again on the same port once it says
#                   "link lost"; PROGRAM is given HOST PORT 1 (one recovery).
set -euo pipefail
korvaned=${1:?usage: run-with-korvaned.sh KORVANED MODE PROGRAM}
mode=${2:?usage: run-with-korvaned.sh KORVANED MODE PROGRAM}
program=${3:?usage: run-with-korvaned.sh KORVANED MODE PROGRAM}
here=$(cd "$(dirname "$0")" && pwd)
dir=$(mktemp -d)
chmod 755 "$dir"  # PostgreSQL runs as its own user when started by root
service=0
postgres=""

cleanup() {
  [ "$service" -ne 0 ] && kill "$service" 2>/dev/null && wait "$service" 2>/dev/null
  [ -n "$postgres" ] && bash "$here/../tests/service/start-postgres.sh" --stop "$postgres"
  rm -rf "$dir"
}
trap cleanup EXIT

# Waits up to 20 s for a line matching $2 in file $1.
wait_for() {
  for _ in $(seq 200); do
    grep -q "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "run-with-korvaned.sh: no '$2' in $1 after 20 s" >&2
  return 1
}

args=()
if [ "$mode" = --postgres ]; then
  driver=$(ls /usr/lib/*/odbc/psqlodbcw.so 2>/dev/null | head -n 1 || true)
  if [ -z "$driver" ]; then echo "skipped: no PostgreSQL ODBC driver (odbc-postgresql)"; exit 77; fi
  # A port taken meanwhile makes the start fail: a few tries on others.
  for try in 1 2 3 4; do
    pgport=$((20000 + RANDOM % 30000))
    code=0
    bash "$here/../tests/service/start-postgres.sh" "$dir/pg$try" "$pgport" 2>"$dir/pg.err" || code=$?
    if [ "$code" -eq 77 ]; then echo "skipped: PostgreSQL is not installed"; exit 77; fi
    if [ "$code" -eq 0 ]; then postgres="$dir/pg$try"; break; fi
  done
  [ -n "$postgres" ] || { cat "$dir/pg.err" >&2; exit 1; }
  args=(--odbc "DRIVER=$driver;Servername=127.0.0.1;Port=$pgport;Database=korvane;Username=postgres;Password=;")
else
  args=(--database "$dir/example.db")
fi

# The heartbeat goes to the discard port: these programs notice a service that
# goes away by its links closing.
start_service() {
  "$korvaned" --port "$1" --port-file "$dir/port" --hb-mode unicast --hb-port 9 "${args[@]}" \
    2>>"$dir/korvaned.log" &
  service=$!
  wait_for "$dir/port" . || { cat "$dir/korvaned.log" >&2; exit 1; }
}

stop_service() {
  kill -TERM "$service"
  local code=0
  wait "$service" || code=$?
  service=0
  if [ "$code" -ne 0 ] || ! grep -q "shutting down" "$dir/korvaned.log"; then
    echo "run-with-korvaned.sh: korvaned ended with $code on SIGTERM" >&2
    cat "$dir/korvaned.log" >&2
    exit 1
  fi
}

start_service 0
port=$(cat "$dir/port")
status=0
if [ "$mode" = --restart ]; then
  "$program" 127.0.0.1 "$port" 1 >"$dir/out" 2>&1 &
  pid=$!
  wait_for "$dir/out" "link up" || { kill "$pid"; cat "$dir/out" >&2; exit 1; }
  rm -f "$dir/port"
  stop_service
  wait_for "$dir/out" "link lost" || { kill "$pid"; cat "$dir/out" >&2; exit 1; }
  start_service "$port"
  wait "$pid" || status=$?
  cat "$dir/out"
else
  "$program" 127.0.0.1 "$port" || status=$?
fi
stop_service
[ "$status" -eq 0 ] || cat "$dir/korvaned.log" >&2
exit "$status"
