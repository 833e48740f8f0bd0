#!/usr/bin/env bash
# Kills the demo with -9 at several moments and looks for what it left.
# usage: demo_killed.sh BUILD_DIR
set -euo pipefail

build=$1
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
readonly build top
[ "$(id -u)" -eq 0 ] || exit 77

# Below the build folder: killed itself, this leaves nothing anywhere else.
scratch=$(mktemp -d -p "$build" demo_killed.XXXXXX)
demo=""
trap '[ -z "$demo" ] || kill -9 "$demo" 2>/dev/null; rm -rf "$scratch"' EXIT

fail() {
    printf 'demo_killed: %s\n' "$*" >&2
    cat "$scratch/output" >&2
    exit 1
}

# shellcheck source=tests/lab_host/left.sh
source "$top/tests/lab_host/left.sh"

kill_at() {
    local moment=$1 outer world
    : >"$scratch/output"  # what the last one said does not count
    "$top/lab/demo.sh" "$build" >"$scratch/output" 2>&1 &
    demo=$!
    eventually has_said "$moment" || fail "it never came to: $moment"
    outer=$(pgrep -P "$demo" -x tflab) || fail "it runs no tflab"
    world=$(pgrep -P "$outer" -x tflab) || fail "tflab runs no world"
    note_world "$build" "$world"
    [ "$(wc -l <"$scratch/loops")" -eq 3 ] || fail "three loop devices were expected"
    kill -9 "$demo"
    wait "$demo" 2>/dev/null || true
    demo=""
    eventually processes_are_gone || fail "killed at \"$moment\": processes are left"
    eventually loops_are_gone || fail "killed at \"$moment\": loop devices are left"
    if grep -q tflab /proc/self/mountinfo; then fail "killed at \"$moment\": mounts are left"; fi
    ! has_said "The demo is over" || fail "it was over before it could be killed"
}

kill_at "^2\."
kill_at "THE SPLIT"
kill_at "reads the copy while"
echo "killed three times, nothing left"
