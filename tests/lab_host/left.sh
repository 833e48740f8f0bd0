# shellcheck shell=bash
# What a killed world may have left. The caller has set scratch, a folder with the program's "output",
# the "loops" and the "spaces" of the world as they were before the kill.

# Calls a function again and again for a while until it succeeds.
eventually() {
    local end=$((SECONDS + 30))
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.02
    done
}

# What a started program has printed so far.
has_said() {
    grep -q "$1" "$scratch/output"
}

# No loop device of the list is attached as it was then.
loops_are_gone() {
    local number sequence
    while read -r number sequence _; do
        if [ -e "/sys/block/loop$number/loop/backing_file" ] &&
            [ "$(cat "/sys/block/loop$number/diskseq")" = "$sequence" ]; then
            return 1
        fi
    done <"$scratch/loops"
}

# No process is in the world's namespaces: then none of its mounts is either.
processes_are_gone() {
    local link space
    for link in /proc/[0-9]*/ns/pid /proc/[0-9]*/ns/mnt; do
        space=$(readlink "$link" 2>/dev/null) || continue
        # One that has ended but was not waited for by its new parent holds nothing any more.
        if grep -qxF "$space" "$scratch/spaces" &&
            ! grep -q "^State:.*zombie" "${link%/ns/*}/status" 2>/dev/null; then
            return 1
        fi
    done
}
