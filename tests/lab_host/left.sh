# shellcheck shell=bash
# What a killed world may have left. The caller has set scratch, a folder with the program's "output".

: "${scratch:?}"

# Remembers the loop devices and the process namespace of a world: the build folder, and the world's
# first process.
note_world() {
    "$1/bin/tflab" loops --world "$2" >"$scratch/loops"
    # Held open: the number of a namespace that is gone is soon that of another one.
    exec 7<"/proc/$2/ns/pid"
    readlink "/proc/$2/ns/pid" >"$scratch/spaces"
}

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

# No process is in the world's namespace. That no mount is left is shown by the loop devices below them.
processes_are_gone() {
    local link space
    for link in /proc/[0-9]*/ns/pid; do
        space=$(readlink "$link" 2>/dev/null) || continue
        # One that has ended but was not waited for by its new parent holds nothing any more.
        if grep -qxF "$space" "$scratch/spaces" &&
            ! grep -q "^State:.*zombie" "${link%/ns/*}/status" 2>/dev/null; then
            return 1
        fi
    done
}
