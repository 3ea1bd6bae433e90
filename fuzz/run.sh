#!/bin/sh
# Builds the decoder fuzz target with clang (address and undefined-behaviour
# sanitizers) in a build directory of its own, then runs it.
#   fuzz/run.sh [seconds]       default 60
# Environment: KVN_FUZZ_BUILD (build directory, default build-fuzz at the root),
# CXX (default clang++).
set -eu
seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KVN_FUZZ_BUILD:-$root/build-fuzz}

cmake -S "$root" -B "$build" -DCMAKE_CXX_COMPILER="${CXX:-clang++}" \
  -DKVN_BUILD_FUZZ=ON -DKVN_BUILD_TESTS=OFF -DKVN_BUILD_TOOLS=OFF \
  -DKVN_SANITIZE=address,undefined >/dev/null
cmake --build "$build" --target kvn_decode_fuzzer -j2

# Seeds: the path byte, then the EXECUTE request carrying "SELECT 1" and the
# answer carrying a status and a long.
corpus="$build/fuzz-corpus"
mkdir -p "$corpus"
if [ -z "$(ls -A "$corpus")" ]; then
  printf '\001\007\000\000\000\003\000\145\001\000\000\000\023\000\000\000\001\370\010\000S\000E\000L\000E\000C\000T\000 \0001\000' \
    >"$corpus/execute"
  printf '\000\007\000\000\000\003\000\145\002\000\000\000\016\000\000\000\001\004\004\000\000\000\000\000\004\004\000\014\000\000\000' \
    >"$corpus/answer"
fi

# Large enough for a text record of the largest size.
"$build/fuzz/kvn_decode_fuzzer" -max_total_time="$seconds" -max_len=70000 \
  -print_final_stats=1 "$corpus"
