#!/usr/bin/env bash
# Sets everything up and shows the main job: a small office logs on, the agent reports each logon to an identity server.
# Needs Debian 12 and root or sudo (for packages); ends by itself and leaves nothing except build/. `./demo.sh --page`
# leaves the server's page running, for a browser, until Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")"
case "$*" in
    '' | --page) page=${1:-} ;;
    *) echo "usage: ./demo.sh [--page]" >&2 && exit 2 ;;
esac

step() { printf '\n== %s\n' "$1"; }
# await TEXT FILE: waits until the text stands in the file, a minute at most.
await() {
    for _ in $(seq 600); do grep -qF -- "$1" "$2" 2>/dev/null && return 0; sleep 0.1; done
    echo "demo.sh: never came: \"$1\" in ${2##*/}" >&2
    cat "$2" >&2 || true
    exit 1
}
# await_count N TEXT FILE: waits until N lines hold the text.
await_count() {
    for _ in $(seq 600); do [ "$(grep -cF -- "$2" "$3" || true)" -ge "$1" ] && return 0; sleep 0.1; done
    echo "demo.sh: fewer than $1 lines with \"$2\" in ${3##*/}" >&2
    cat "$3" >&2
    exit 1
}
finish() {
    for pid in "${agent:-}" "${server:-}"; do [ -n "$pid" ] && kill "$pid" 2>/dev/null || true; done
    rm -rf "$root"
}

step "Packages and build"
packaging/install-build-packages demo
cmake --preset release -DKELDWICK_BENCH=OFF >/dev/null
cmake --build --preset release | tail -n 1
bin=build/release/bin

root=$(mktemp -d)
trap finish EXIT
export KELDWICK_ROOT=$root
host=127.53.0.1  # a loopback address of its own, so that nothing else on this machine is met

step "A machine root with settings, and a logon from before the start, which is not to be reported"
"$bin/keldwickctl" init --server "$host" --protocol tcp
[ -f demo/directory.ldif ] && cp demo/directory.ldif "$root/directory.ldif"
"$bin/keldwickctl" events import demo/yesterday.xml
"$bin/keldwickctl" settings list

step "An identity server and the agent"
"$bin/keldwick-server" --host "$host" --json --http "$host:8306" >"$root/reports" 2>"$root/server-errors" &
server=$!
await "port 1306" "$root/server-errors"  # the agent would come again only after a minute
"$bin/keldwick" -A 2>"$root/agent-errors" &
agent=$!
await "PositionToEnd: FORWARDS" "$root/Keldwick.log"
grep -aE 'Running as|Connected to|Processing' "$root/Keldwick.log"

step "A morning in the office: 13 events"
"$bin/keldwickctl" events import demo/office-logons.xml
await_count 6 'request status = ' "$root/Keldwick.log"

step "Stopping the agent through its Shutdown value"
"$bin/keldwickctl" settings set Shutdown 1
wait "$agent" && echo "The agent ended with exit code 0."
agent=

step "What the agent logged about each event, and each report as the server got it"
python3 demo/show.py "$root/Keldwick.log" "$root/reports"

if [ "$page" = --page ]; then
    step "The page: open http://$host:8306/ in a browser on this machine; Ctrl-C ends it"
    trap 'exit 0' INT
    wait "$server"
else
    kill "$server" && wait "$server"
    server=
    printf '\nTo look at it in a browser: ./demo.sh --page leaves the server running, with its page on http://%s:8306/\n' "$host"
fi
