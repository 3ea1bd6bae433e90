#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test:
#  1. Linux build with the tools (korvaned, its loader, kvnsql) and the
#     benchmarks: every test, the service's and the end-to-end ones included;
#  2. address + undefined-behaviour sanitizers, every test;
#  3. thread sanitizer, every test;
#     the examples run against korvaned, and the API reference is built;
#  4. the installed package: its tools run from the prefix, and a small
#     application builds with find_package and with pkg-config;
#  5. Windows: the 32-bit KorvaneClientU.dll built and link-checked, the
#     64-bit test programs run under Wine;
#  6. a short run of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=${KVN_JOBS:-$(nproc)}
# Most tests spend their time waiting on timers and sockets, not computing:
# they run several to a core.
test_jobs=${KVN_TEST_JOBS:-$((3 * jobs))}

scripts/install-deps.sh test

build_and_test() {
  local dir=$1; shift
  echo "== $dir: configure and build"
  cmake -S "$root" -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs" >/dev/null
  echo "== $dir: tests"
  (cd "$dir" && ctest -j"$test_jobs" --output-on-failure)
}

build_and_test build-ci -DKVN_BUILD_BENCH=ON
echo "== API reference"
cmake --build build-ci --target docs >/dev/null
if [ -s build-ci/docs/warnings.log ]; then cat build-ci/docs/warnings.log; exit 1; fi
build_and_test build-ci-asan -DKVN_SANITIZE=address,undefined
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  build_and_test build-ci-tsan -DKVN_SANITIZE=thread

echo "== installed package"
scripts/check-install.sh build-ci

if [ -x scripts/windows-build.sh ]; then
  echo "== Windows"
  scripts/windows-build.sh
fi

if [ -x fuzz/run.sh ]; then
  fuzz/run.sh 20
fi
echo "== all checks passed"
