#!/usr/bin/env bash
# Installs what building and testing the project needs on a Debian machine.
# Usage: scripts/install-deps.sh [build|test]
set -euo pipefail
what=${1:-test}

packages=(build-essential cmake googletest libbenchmark-dev)
# The service korvaned reaches its databases through unixODBC; its default
# database is a SQLite file through the SQLite ODBC driver.
packages+=(unixodbc-dev libsqliteodbc)
# korvaned's configuration file is read by inih; the installed package is
# checked with pkg-config.
packages+=(libinih-dev pkg-config)
# The select benchmark measures beside sqlite3 and libpq called directly.
packages+=(libsqlite3-dev libpq-dev)
if [ "$what" = test ]; then
  packages+=(doxygen)  # the API reference
fi
# kvnsql's line editing and history at the prompt.
packages+=(libedit-dev)
if [ "$what" = test ]; then
  # Windows cross-build (32-bit DLL, 64-bit tests under Wine), fuzzing.
  packages+=(g++-mingw-w64-i686 g++-mingw-w64-x86-64 wine wine64 clang libclang-rt-14-dev)
  # The service's tests against a PostgreSQL server started in a temporary directory.
  packages+=(odbc-postgresql postgresql)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "== installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
