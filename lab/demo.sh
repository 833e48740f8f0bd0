#!/usr/bin/env bash
# Snapshots in two lab worlds, told and proved. First act: one snapshot of a busy file system. Second act: a disk
# group is backed up on another host, destroyed and restored.
#
# usage: demo.sh [BUILD_DIR]      default: BUILD_DIR of the environment, else build/dev
# Status 0 only when the proof held and nothing is left; 77 without root.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly top
# Files that the hosts and this script share; of the world, as everything that is written here.
# shellcheck disable=SC2034  # the acts use them
readonly shared=/run/tflab/exchange in_host=/exchange patience=60

say() {
    printf '%s\n' "$*"
}

fail() {
    printf '\nThe demo FAILED: %s\n' "$*" >&2
    exit 1
}

# --- outside: start the world, and look for what it left ---

# When a process was started, in the system's clock ticks: field 22 of its status line, whose second
# field ends with the last bracket.
start_of() {
    local status fields
    status=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    read -ra fields <<<"${status##*) }"
    printf '%s' "${fields[19]}"
}

# What the world reports about itself on descriptor 3: "loop NUMBER SEQUENCE" and "space KIND:[ID]".
check_that_nothing_is_left() {
    local kind a b link found="" over process started
    over=$(start_of self)
    while read -r kind a b; do
        case $kind in
            loop)
                # The sequence number tells this attachment from a later one of the same device.
                if [ -e "/sys/block/loop$a/loop/backing_file" ] &&
                    [ "$(cat "/sys/block/loop$a/diskseq")" = "$b" ]; then
                    found+="  loop device /dev/loop$a"$'\n'
                fi
                ;;
            space)
                # The number of a namespace that is gone is soon that of another one; what was
                # started since then is not of the world.
                for link in /proc/[0-9]*/ns/pid; do
                    process=${link#/proc/} process=${process%%/*}
                    if [ "$(readlink "$link" 2>/dev/null)" = "$a" ] &&
                        started=$(start_of "$process") && [ "$started" -lt "$over" ]; then
                        found+="  process $process"$'\n'
                    fi
                done
                ;;
        esac
    done <<<"$1"
    if grep -q tflab /proc/self/mountinfo; then found+="  a mount"$'\n'; fi
    [ -z "$found" ] || fail "this is left:"$'\n'"$found"
    [[ $1 == *loop* && $1 == *space* ]] || fail "the world did not report its devices"
    say "Nothing is left: no process, no mount, no loop device, no file."
}

# Plays one act in a world of its own: its name, its scenario, its hosts.
play() {
    local act=$1 scenario=$2 report status=0 hosts=() name
    shift 2
    for name in "$@"; do hosts+=(--host "$name"); done
    # "exec" makes this shell the parent: the world dies with it, also of kill -9.
    exec 4>&1
    report=$(exec "$build/bin/tflab" run --build "$build" --scenario "$scenario" "${hosts[@]}" -- \
        "${BASH_SOURCE[0]}" --inside "$act" 3>&1 >&4) || status=$?
    exec 4>&-
    [ $status -eq 0 ] || exit $status
    check_that_nothing_is_left "$report"
}

outside() {
    readonly build=$1
    if [ "$(id -u)" -ne 0 ]; then
        say "The demo needs root: it makes namespaces, loop devices and mounts." >&2
        exit 77
    fi
    play busy_file_system demo client1
    play disk_group volumes client1 backup1
    say "The demo is over: everything held."
}

# --- inside ---

report_world() {
    local number sequence file
    while read -r number sequence file; do
        [ -n "$file" ] && printf 'loop %s %s\n' "$number" "$sequence" >&3
    done < <(tflab loops)
    printf 'space %s\n' "$(readlink /proc/self/ns/pid)" >&3
}

inside() {
    # shellcheck source=lab/demo/busy_file_system.sh
    # shellcheck source=lab/demo/disk_group.sh
    source "$top/lab/demo/$1.sh"
    report_world
    "$1"
}

case ${1:-} in
    --inside) inside "$2" ;;
    *)
        folder=${1:-${BUILD_DIR:-$top/build/dev}}
        [ -x "$folder/bin/tflab" ] ||
            fail "$folder is no build folder: it has no bin/tflab; ./dev demo without a folder builds its own"
        outside "$(cd "$folder" && pwd)"
        ;;
esac
