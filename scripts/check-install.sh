#!/usr/bin/env bash
# Installs the library from a build directory into a temporary prefix, then
# builds and runs a small application that finds it with
# find_package(KorvaneClient) and links KorvaneClient::KorvaneClient.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix/usr" >/dev/null
cmake -S tests/install/app -B "$prefix/app" -DCMAKE_PREFIX_PATH="$prefix/usr" >/dev/null
cmake --build "$prefix/app" >/dev/null
LD_LIBRARY_PATH="$prefix/usr/lib:$prefix/usr/lib/$(gcc -dumpmachine 2>/dev/null || true)" \
  "$prefix/app/kvn_install_check"
