#!/usr/bin/env bash
# Sets everything up and passes the tests: the layout check, Keldwick.exe, the layer and the agent under the thread
# sanitizer, then the whole suite and short runs of the fuzz targets under the address and undefined-behaviour sanitizers
# beside Keldwick.exe under wine. Ends with the test runners' own closing lines.
set -euo pipefail
cd "$(dirname "$0")"

step() { printf '\n== %s (%ss)\n' "$1" "$SECONDS"; }
build() {
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" -- "${@:2}" >"build/$1/build.log" || { tail -n 60 "build/$1/build.log"; exit 1; }
    tail -n 1 "build/$1/build.log"
}
# begin COMMAND...: runs it beside what follows, until `finish`. When the script ends before that, so does the command.
beside=
begin() { set -m; "$@" </dev/null & set +m; beside=$!; }
finish() { wait "$beside" && beside=; }
trap '[ -z "$beside" ] || kill -- "-$beside" 2>/dev/null || true' EXIT

step "Packages"
packaging/install-build-packages test

step "Layout of the source"
cmake --preset asan >/dev/null
cmake --build --preset asan --target format-check -- --quiet

step "Keldwick.exe, and the tests for the thread sanitizer"
begin build windows
build tsan tests_win32 tests_agent
finish

step "The programs and the tests with the address and undefined-behaviour sanitizers, and the layer and the agent under the thread sanitizer"
# The longest tests of the layer and the agent have one thread.
begin ctest --preset tsan -L 'layer|agent' -E 'RING|NestingDeeper' --no-tests=error >build/tsan/ctest.log
build asan
finish || { cat build/tsan/ctest.log; exit 1; }
grep 'tests passed' build/tsan/ctest.log

step "The whole suite and short runs of the fuzz targets, and Keldwick.exe under wine"
begin ctest --preset windows --no-tests=error >build/windows/ctest.log  # it waits more than it works
ctest --preset asan --no-tests=error
finish || { cat build/windows/ctest.log; exit 1; }
grep 'tests passed' build/windows/ctest.log
