#!/usr/bin/env bash
# Runs an example program against a korvaned of its own, on loopback, in a
# temporary directory, then stops korvaned.
#
#   run-with-korvaned.sh KORVANED MODE PROGRAM [ARG...]
#
# MODE: --sqlite      korvaned on a SQLite file; PROGRAM is given ARG... HOST
#                     PORT;
#       --postgres    korvaned on a PostgreSQL server started for the run
#                     (exit 77, "skipped", where PostgreSQL is not installed);
#       --restart[=N] korvaned on a SQLite file, stopped N times (default 1)
#                     and started again on the same port each time: stopped
#                     once PROGRAM says "link up" (then "working again"),
#                     started again once it says "link lost". The odd stops
#                     are a SIGTERM, the even ones a SIGKILL, which leaves the
#                     closing of the links to the system. PROGRAM is given
#                     ARG... HOST PORT N, and must end by itself.
set -euo pipefail
korvaned=${1:?usage: run-with-korvaned.sh KORVANED MODE PROGRAM}
mode=${2:?usage: run-with-korvaned.sh KORVANED MODE PROGRAM}
program=${3:?usage: run-with-korvaned.sh KORVANED MODE PROGRAM}
shift 3
program_args=("$@")
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

# Waits up to 20 s for $3 lines (default 1) matching $2 in file $1, and
# gives up at once when the process $4, if given, has ended.
wait_for() {
  local n
  for _ in $(seq 200); do
    n=$(grep -c "$2" "$1" 2>/dev/null || true)
    [ "${n:-0}" -ge "${3:-1}" ] && return 0
    [ -n "${4:-}" ] && ! kill -0 "$4" 2>/dev/null && break
    sleep 0.1
  done
  echo "run-with-korvaned.sh: not ${3:-1} '$2' in $1" >&2
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

# The heartbeat goes to the discard port, once a minute: these programs notice
# a service that goes away by its links closing, and a heartbeat that never
# comes would count as a loss of its own after three periods.
start_service() {
  "$korvaned" --port "$1" --port-file "$dir/port" --hb-mode unicast --hb-port 9 --hb-period 60000 \
    "${args[@]}" \
    2>>"$dir/korvaned.log" &
  service=$!
  wait_for "$dir/port" . || { cat "$dir/korvaned.log" >&2; exit 1; }
}

stop_service() {  # $1: the signal, TERM by default
  local signal=${1:-TERM} code=0
  kill -"$signal" "$service"
  wait "$service" || code=$?
  service=0
  [ "$signal" = KILL ] && return 0
  if [ "$code" -ne 0 ] || ! grep -q "shutting down" "$dir/korvaned.log"; then
    echo "run-with-korvaned.sh: korvaned ended with $code on SIGTERM" >&2
    cat "$dir/korvaned.log" >&2
    exit 1
  fi
}

start_service 0
port=$(cat "$dir/port")
status=0
if [[ $mode == --restart* ]]; then
  cycles=${mode#--restart}
  cycles=${cycles#=}
  cycles=${cycles:-1}
  "$program" "${program_args[@]}" 127.0.0.1 "$port" "$cycles" >"$dir/out" 2>&1 &
  pid=$!
  program_failed() {
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    cat "$dir/out" >&2
    exit 1
  }
  for i in $(seq "$cycles"); do
    signal=TERM
    [ $((i % 2)) -eq 0 ] && signal=KILL
    wait_for "$dir/out" "link up\|working again" "$i" "$pid" || program_failed
    rm -f "$dir/port"
    stop_service "$signal"
    wait_for "$dir/out" "link lost" "$i" "$pid" || program_failed
    start_service "$port"
  done
  wait "$pid" || status=$?
  cat "$dir/out"
else
  "$program" "${program_args[@]}" 127.0.0.1 "$port" || status=$?
fi
stop_service
[ "$status" -eq 0 ] || cat "$dir/korvaned.log" >&2
exit "$status"
