#!/bin/sh
# Builds the fuzz targets with clang (address and undefined-behaviour
# sanitizers) in a build directory of its own, then runs each in turn.
#   fuzz/run.sh [seconds] [target...]
# seconds: how long each target runs (default 60); targets: any of
# decode exchange dispatch service (default all).
# Each target keeps its corpus in <build>/fuzz-corpus/<target>, started from
# the seeds that kvn_fuzz_seeds writes; a finding stops the script with the
# input that caused it saved in the build directory.
# Environment: KVN_FUZZ_BUILD (build directory, default build-fuzz at the root),
# CXX (default clang++).
set -eu
seconds=${1:-60}
[ $# -gt 0 ] && shift
targets=${*:-decode exchange dispatch service}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KVN_FUZZ_BUILD:-$root/build-fuzz}

cmake -S "$root" -B "$build" -DCMAKE_CXX_COMPILER="${CXX:-clang++}" \
  -DKVN_BUILD_FUZZ=ON -DKVN_BUILD_TESTS=OFF -DKVN_BUILD_TOOLS=OFF \
  -DKVN_SANITIZE=address,undefined >/dev/null
binaries=kvn_fuzz_seeds
for t in $targets; do binaries="$binaries kvn_${t}_fuzzer"; done
# shellcheck disable=SC2086
cmake --build "$build" --target $binaries -j2

for t in $targets; do
  corpus="$build/fuzz-corpus/$t"
  mkdir -p "$corpus"
  [ -n "$(ls -A "$corpus")" ] || "$build/fuzz/kvn_fuzz_seeds" "$t" "$corpus"
  echo "== fuzzing $t for ${seconds}s"
  # Large enough for a text record of the largest size.
  (cd "$build" && "$build/fuzz/kvn_${t}_fuzzer" -max_total_time="$seconds" -max_len=70000 \
    -print_final_stats=1 "$corpus")
done
