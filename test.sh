#!/usr/bin/env bash
# Sets everything up and passes the tests: the layout check, Keldwick.exe and what it does under wine, the threaded parts under the thread sanitizer, and the whole suite under the address and
# undefined-behaviour sanitizers. Ends with the test runner's own closing lines.
set -euo pipefail
cd "$(dirname "$0")"

step() { printf '\n== %s (%ss)\n' "$1" "$SECONDS"; }
build() { cmake --preset "$1" >/dev/null && cmake --build --preset "$1" -- "${@:2}" | tail -n 1; }

step "Packages"
packaging/install-build-packages test

step "Layout of the source"
cmake --preset asan >/dev/null
cmake --build --preset asan --target format-check -- --quiet

step "Keldwick.exe"
build windows

step "The threaded parts under the thread sanitizer"
threaded=(tests_win32 tests_diagnostics tests_component tests_protocol tests_service tests_loop)
build tsan "${threaded[@]}"
ctest --preset tsan -L 'layer|unit|loop' -R '^(win32|diagnostics|component|protocol|service|loop)/' \
    --no-tests=error >build/tsan/ctest.log || { cat build/tsan/ctest.log; exit 1; }
grep 'tests passed' build/tsan/ctest.log

step "The whole suite under the address and undefined-behaviour sanitizers"
build asan
fuzz/run-briefly build/asan/bin
ctest --preset windows --no-tests=error >build/windows/ctest.log || { cat build/windows/ctest.log; exit 1; }
grep 'tests passed' build/windows/ctest.log
ctest --preset asan --no-tests=error
