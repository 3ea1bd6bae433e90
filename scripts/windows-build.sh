#!/usr/bin/env bash
# The Windows build, cross-compiled with mingw-w64 (packages g++-mingw-w64-i686,
# g++-mingw-w64-x86-64, wine, wine64):
#  1. 32-bit: KorvaneClientU.dll and its import library in build-win32, then
#     link checks: the DLL exports the plain C functions and the classes'
#     members, imports nothing but system DLLs, and a small program links
#     against it through the public headers;
#  2. 64-bit: the test programs in build-win64, run under Wine in a private
#     prefix inside that directory.
# Any warning in the project's own sources, any failed check or test fails
# the script.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=${KVN_JOBS:-$(nproc)}

fail() {
  echo "windows-build: $*" >&2
  exit 1
}

# Builds a target and fails on any compiler warning (GoogleTest is built with
# its warnings switched off, so every warning left is ours).
build() {
  local dir=$1; shift
  local log="$dir/build.log"
  if ! cmake --build "$dir" -j"$jobs" "$@" >"$log" 2>&1; then
    cat "$log" >&2
    fail "build failed in $dir"
  fi
  if grep -q 'warning:' "$log"; then
    grep -B2 -A6 'warning:' "$log" >&2
    fail "compiler warnings in $dir"
  fi
}

# ---- 1. The 32-bit DLL -----------------------------------------------------------
win32=$root/build-win32
echo "== build-win32: KorvaneClientU.dll"
cmake -S "$root" -B "$win32" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-i686.cmake" \
  -DKVN_BUILD_TESTS=OFF -DKVN_BUILD_TOOLS=OFF >/dev/null
build "$win32" --target KorvaneClient

dll=$win32/KorvaneClientU.dll
implib=$win32/libKorvaneClientU.dll.a
[ -f "$dll" ] || fail "$dll was not built"
[ -f "$implib" ] || fail "$implib was not built"

objdump=i686-w64-mingw32-objdump
[[ $("$objdump" -f "$dll") == *"file format pei-i386"* ]] || fail "$dll is not a 32-bit DLL"
pe=$win32/KorvaneClientU.pe.txt
"$objdump" -p "$dll" >"$pe"

# Export names: the lines of the name table after its "[Ordinal/Name Pointer]"
# heading, up to the next blank line.
exports=$(awk '/\[Ordinal\/Name Pointer\] Table/ {on = 1; next}
  on && NF == 0 {on = 0} on {print $NF}' "$pe")
[ -n "$exports" ] || fail "$dll exports nothing"

expect_export() {  # $1: extended regular expression matched against whole names
  grep -Eq "^($1)\$" <<<"$exports" || fail "$dll does not export $2"
}
expect_export 'SockInitWinSock' 'SockInitWinSock (plain name)'
expect_export 'SockCloseWinSock' 'SockCloseWinSock (plain name)'
expect_export '_ZN4DStr.*' 'the members of DStr'
expect_export '_ZN6CMutex.*' 'the members of CMutex'
expect_export '_ZN10CMsgSocket12SendMessageW.*' 'CMsgSocket::SendMessageW'

# Imports: system DLLs only; the C++ run-time, libgcc and winpthread are inside.
imports=$(awk '/DLL Name:/ {print $3}' "$pe")
[ -n "$imports" ] || fail "$dll imports nothing (unexpected)"
while read -r name; do
  case "${name,,}" in
    kernel32.dll | ws2_32.dll | user32.dll | rpcrt4.dll | oleaut32.dll | msvcrt.dll | api-ms-*) ;;
    *) fail "$dll imports $name (only system DLLs are allowed)" ;;
  esac
done <<<"$imports"
echo "   exports $(wc -l <<<"$exports") names; imports:" $imports

# An application's view: a program built against the public headers and the
# import library, using the plain functions and exported classes. Its two
# files include the public headers before and after <windows.h> and the ODBC
# headers.
linkcheck=$win32/linkcheck
mkdir -p "$linkcheck"
cat >"$linkcheck/before.cpp" <<'EOF'
#include <korvane/KorvaneClient.h>
#include <windows.h>
#include <sql.h>
#include <sqlext.h>

int TypeCodes() { return SQL_C_WCHAR + SQL_C_SBIGINT; }
EOF
cat >"$linkcheck/main.cpp" <<'EOF'
#include <windows.h>
#include <sqlext.h>
#include <korvane/KorvaneClient.h>

int TypeCodes();

int main() {
    if (!SockInitWinSock()) return 1;
    CMutex mutex;
    if (!mutex.Lock(1000)) return 2;
    DStr text(L"link");
    text += L" check";
    text.Printf(L"%ls %d", L"link check", text.Length());
    mutex.Unlock();
    if (TypeCodes() != SQL_C_WCHAR + SQL_C_SBIGINT) return 4;
    return SockCloseWinSock() ? 0 : 3;
}
EOF
i686-w64-mingw32-g++-posix -std=c++17 -Wall -Wextra -Werror -DUNICODE -D_UNICODE \
  -I"$root/include" -I"$root/src/platform/public" \
  "$linkcheck/main.cpp" "$linkcheck/before.cpp" "$implib" -static-libgcc -static-libstdc++ \
  -o "$linkcheck/linkcheck.exe" || fail "a program does not link against $implib"
echo "   link check: OK"

# The examples written for both systems build for Windows from the same source.
for example in event_loop follow_link; do
  i686-w64-mingw32-g++-posix -std=c++17 -Wall -Wextra -Werror -DUNICODE -D_UNICODE \
    -I"$root/include" -I"$root/src/platform/public" "$root/examples/$example.cpp" "$implib" \
    -static-libgcc -static-libstdc++ -o "$linkcheck/$example.exe" ||
    fail "examples/$example.cpp does not build for Windows"
done
echo "   examples for both systems: OK"

# ---- 2. The 64-bit tests under Wine ----------------------------------------------------
win64=$root/build-win64
echo "== build-win64: test programs"
cmake -S "$root" -B "$win64" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-x86_64.cmake" \
  -DKVN_BUILD_TOOLS=OFF -DKVN_BUILD_TESTS=ON >/dev/null
build "$win64"

# A private prefix, created once up front so that no test pays for it.
# Headless: the tests need no display.
export WINEPREFIX=$win64/wineprefix
export WINEDEBUG=-all
unset DISPLAY WAYLAND_DISPLAY
wine64=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver64
[ -x "$wine64" ] || fail "$wine64 not found (package wine64)"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "== creating the Wine prefix"
  timeout 300 "$wine64" wineboot --init >/dev/null 2>&1 || fail "wineboot failed"
  timeout 120 "$wineserver" -w || fail "the Wine server did not settle"
  [ -f "$WINEPREFIX/system.reg" ] || fail "the Wine prefix was not created"
fi

echo "== build-win64: tests under Wine"
# One persistent Wine server for every test program: a server that ends
# between two programs can drop the one starting at that moment. Its
# background services are started here, with their output going nowhere:
# started by a test program they would inherit (and hold open) ctest's pipe.
"$wineserver" -p
timeout 120 "$wine64" wineboot </dev/null >/dev/null 2>&1 || true
status=0
# The shards mostly wait on timers and sockets: several run to a core.
wine_jobs=${KVN_WINE_JOBS:-$((2 * jobs))}
(cd "$win64" && ctest -j"$wine_jobs" --output-on-failure --no-tests=error) || status=$?
timeout 60 "$wineserver" -k || true
[ "$status" -eq 0 ] || fail "tests failed under Wine"
echo "== Windows: all checks passed"
