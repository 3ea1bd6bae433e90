#!/usr/bin/env bash
# Installs a build directory into a temporary prefix and uses it as a user
# would, with nothing pointing the loader at the prefix:
#  - the installed tools run (they find the library through their RUNPATH),
#    korvaned with the installed example configuration;
#  - a small application builds against the package with find_package and
#    with pkg-config, and runs;
#  - examples/event_loop.cpp builds with pkg-config alone and follows the
#    losses and returns of its link, with poll and with the wait functions,
#    against the installed korvaned stopped and started again.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${1:-build}
tmp=$(mktemp -d)
service=0
trap '[ "$service" -ne 0 ] && kill "$service" 2>/dev/null; rm -rf "$tmp"' EXIT
prefix=$tmp/usr
cmake --install "$build" --prefix "$prefix" >/dev/null
unset LD_LIBRARY_PATH

echo "-- installed tools"
for tool in kvnsql korvaned korvane-loader; do "$prefix/bin/$tool" --version; done
conf=$prefix/share/korvaneclient/korvaned.conf.example
test -f "$prefix/lib/systemd/system/korvaned.service"
# The example configuration as it is, placed in the temporary directory.
"$prefix/bin/korvaned" --config "$conf" --port 0 --port-file "$tmp/port" --database "$tmp/k.db" \
  --hb-mode unicast --hb-port 9 2>"$tmp/korvaned.log" &
service=$!
for _ in $(seq 100); do [ -s "$tmp/port" ] && break; sleep 0.1; done
[ -s "$tmp/port" ] || { cat "$tmp/korvaned.log"; exit 1; }
"$prefix/bin/kvnsql" --port "$(cat "$tmp/port")" -c "select 40 + 2 as answer" | grep -q 42
kill -TERM "$service"
wait "$service"
service=0
grep -q "shutting down" "$tmp/korvaned.log"

echo "-- find_package"
cmake -S tests/install/app -B "$tmp/app" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/app" >/dev/null
"$tmp/app/kvn_install_check"

echo "-- pkg-config"
pcdir=$(dirname "$(find "$prefix" -name korvaneclient.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs korvaneclient)
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir korvaneclient)
# shellcheck disable=SC2086
c++ -std=c++17 -Wall -Wextra -Werror "$root"/tests/install/app/{main,OdbcFirst,OdbcLast}.cpp \
  -o "$tmp/pc_check" $flags -Wl,-rpath,"$libdir"
"$tmp/pc_check"

echo "-- event loop against the installed korvaned, stopped and restarted"
# shellcheck disable=SC2086
c++ -std=c++17 -Wall -Wextra -Werror "$root/examples/event_loop.cpp" -o "$tmp/event_loop" $flags \
  -Wl,-rpath,"$libdir"
for waits in "" --waits; do
  # shellcheck disable=SC2086
  out=$("$root/examples/run-with-korvaned.sh" "$prefix/bin/korvaned" --restart=2 "$tmp/event_loop" $waits 2>&1) ||
    { echo "$out"; exit 1; }
  echo "event_loop ${waits:-(poll)}: $(grep -c "link back" <<<"$out") returns followed"
done
