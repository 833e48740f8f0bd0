#!/usr/bin/env bash
# Kills a world with -9 while one of its file systems is frozen and a program writes to it. Nobody in
# the world is left who could thaw it, and frozen it would keep the writer and the devices for good.
# usage: frozen_killed.sh BUILD_DIR
set -euo pipefail

build=$1
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
readonly build top
[ "$(id -u)" -eq 0 ] || exit 77

scratch=$(mktemp -d -p "$build" frozen_killed.XXXXXX)
outer=""
trap '[ -z "$outer" ] || kill -9 "$outer" 2>/dev/null; rm -rf "$scratch"' EXIT

fail() {
    printf 'frozen_killed: %s\n' "$*" >&2
    cat "$scratch/output" >&2
    exit 1
}

# shellcheck source=tests/lab_host/left.sh
source "$top/tests/lab_host/left.sh"

# Quoted as it stands: it runs in the host.
# shellcheck disable=SC2016
in_host='mkfs.ext4 -q /dev/qz/dmp/p0 && mkdir /data && mount /dev/qz/dmp/p0 /data &&
    { (while echo x >>/data/file; do :; done) & } && sleep 0.1 && fsfreeze -f /data && echo frozen'

# shellcheck disable=SC2016
"$build/bin/tflab" run --scenario demo --host client1 --pid-file "$scratch/world" -- \
    sh -c 'tflab exec client1 -- sh -c "$1"; exec sleep 60' sh "$in_host" \
    >"$scratch/output" 2>&1 &
outer=$!
eventually has_said "^frozen" || fail "nothing was frozen"
world=$(cat "$scratch/world")
note_world "$build" "$world"
kill -9 "$outer"
wait "$outer" 2>/dev/null || true
outer=""
eventually processes_are_gone || fail "processes are left"
eventually loops_are_gone || fail "loop devices are left"
echo "killed while frozen, nothing left"
