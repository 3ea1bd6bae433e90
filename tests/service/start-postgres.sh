#!/usr/bin/env bash
# Starts a PostgreSQL server for the service's tests in a directory of its
# own, listening on 127.0.0.1 only, with password-less access for the user
# "postgres" from loopback, and a database "korvane".
#
#   start-postgres.sh DIR PORT    start (DIR is created or must be empty)
#   start-postgres.sh --stop DIR  stop the server started in DIR
#   start-postgres.sh --shared FILE       start one for a whole test run in a
#                                         new directory, on a free port written to FILE
#   start-postgres.sh --stop-shared FILE  stop it and remove its directory
#
# Exit code 77 when PostgreSQL is not installed here (the tests then skip);
# --shared then writes no FILE and ends with 0, and each test program finds
# out for itself.
# Run as root, the server runs as the system user "postgres" (it refuses to
# run as root).
set -euo pipefail

if [ "${1:-}" = "--stop-shared" ]; then
  file=${2:?usage: start-postgres.sh --stop-shared FILE}
  [ -s "$file" ] || exit 0
  read -r _ dir <"$file"
  rm -f "$file"
  bash "$0" --stop "$dir"
  rm -rf "$(dirname "$dir")"
  exit 0
fi

bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1 || true)
if [ -z "$bin" ] || [ ! -x "$bin/initdb" ] || [ ! -x "$bin/pg_ctl" ]; then
  echo "start-postgres.sh: PostgreSQL is not installed (Debian package postgresql)" >&2
  [ "${1:-}" = "--shared" ] && exit 0
  exit 77
fi

if [ "${1:-}" = "--shared" ]; then
  file=${2:?usage: start-postgres.sh --shared FILE}
  rm -f "$file"
  # Outside the build tree: the server's user must reach it.
  dir=$(mktemp -d /tmp/kvn-postgres-XXXXXX)
  chmod 755 "$dir"
  # A port free a moment ago may be taken by the time the server binds it.
  for try in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 30000))
    if bash "$0" "$dir/$try" "$port"; then
      echo "$port $dir/$try" >"$file"
      exit 0
    fi
    bash "$0" --stop "$dir/$try"
  done
  rm -rf "$dir"
  exit 1
fi

as_owner() {
  if [ "$(id -u)" -eq 0 ]; then
    if ! id postgres >/dev/null 2>&1; then
      echo "start-postgres.sh: running as root, but there is no user postgres" >&2
      exit 77
    fi
    runuser -u postgres -- "$@"
  else
    "$@"
  fi
}

if [ "${1:-}" = "--stop" ]; then
  dir=${2:?usage: start-postgres.sh --stop DIR}
  as_owner "$bin/pg_ctl" -D "$dir/data" -m immediate -w stop >/dev/null 2>&1 || true
  exit 0
fi

dir=${1:?usage: start-postgres.sh DIR PORT}
port=${2:?usage: start-postgres.sh DIR PORT}
mkdir -p "$dir"
[ "$(id -u)" -eq 0 ] && chown postgres "$dir"

as_owner "$bin/initdb" -D "$dir/data" -U postgres --auth=trust --encoding=UTF8 --locale=C.UTF-8 \
  >"$dir/initdb.log" 2>&1 || { cat "$dir/initdb.log" >&2; exit 1; }
# Only loopback, the socket directory inside DIR, and no more than the tests need.
as_owner "$bin/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -t 60 \
  -o "-c listen_addresses=127.0.0.1 -p $port -k $dir -c fsync=off -c max_connections=40" start >/dev/null \
  || { cat "$dir/server.log" >&2; exit 1; }
as_owner "$bin/psql" -h 127.0.0.1 -p "$port" -U postgres -d postgres -q -c "CREATE DATABASE korvane" >/dev/null
