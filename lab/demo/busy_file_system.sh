# The demo's first act, sourced by demo.sh inside its world: one snapshot of a busy file system, proved to be
# the state of one instant.
# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154  # what demo.sh and this share
readonly host=client1 primary=/dev/qz/dmp/p0 data=/data

on_host() {
    tflab exec "$host" -- "$@"
}

steps() {
    tfwriter steps "$shared/witness"
}

# Waits until the writer has taken so many steps in all.
wait_for_step() {
    local end=$((SECONDS + patience))
    while [ "$(steps)" -lt "$1" ]; do
        [ $SECONDS -lt $end ] || fail "the writer does not get to step $1"
        sleep 0.05
    done
}

start_writer() {
    tflab exec "$host" -- tfwriter write "$data/busy" --witness "$in_host/witness" &
    local end=$((SECONDS + patience))
    until [ -e "$shared/witness" ]; do
        [ $SECONDS -lt $end ] || fail "the writer does not start"
        sleep 0.05
    done
    wait_for_step 300
}

# Runs in the host with the copy's folder as its argument; reads the copy twice.
write_backup_command() {
    cat >"$shared/backup" <<'COMMAND'
#!/bin/bash
set -euo pipefail
manifest() { (cd "$1/busy" && find . -type f -print0 | sort -z | xargs -0 sha256sum); }
before=$(tfwriter steps /exchange/witness)
tar -C "$1" -cf /exchange/backup.tar busy
manifest "$1" >/exchange/manifest
# Give the original time to move on, then read the copy once more.
until [ "$(tfwriter steps /exchange/witness)" -ge $((before + 600)) ]; do sleep 0.05; done
manifest "$1" >/exchange/manifest.later
after=$(tfwriter steps /exchange/witness)
echo "backup of $1: $(wc -l </exchange/manifest) files; meanwhile the original took" \
    "$((after - before)) steps"
COMMAND
    chmod 755 "$shared/backup"
}

# One line of fimctl with what it means; the lines of other programs as they are.
narrate() {
    local line=$1 phase meaning=""
    phase=${line#fimctl: snapshot 1: }
    case $phase in
        "freeze (object 1)") meaning="finds the array device under $data and its mirror, takes the array lock" ;;
        "control code 4") meaning="joins the two; waits until the mirror holds what the primary holds" ;;
        "quiesce the file systems") meaning="the file system is stopped for a moment, the program waits" ;;
        "freeze commit") meaning="THE SPLIT: the mirror keeps this instant; the program goes on" ;;
        "judge the copy") meaning="asks the array itself whether the copy is good" ;;
        "rebuild (object 1)") meaning="another process; all it knows is the checkpoint's text" ;;
        "volumes (object 1)") meaning="fsck of the copy, and its mount" ;;
        "run the command"*) meaning="reads the copy while the original changes" ;;
        "thaw (object 1)") meaning="unmounts the copy" ;;
        "thaw commit (object 1)") meaning="the mirror follows its primary again, the lock is released" ;;
    esac
    [ "$phase" = "$line" ] || line=$phase
    if [ -n "$meaning" ]; then
        printf '      %-26s %s\n' "${line%: *}" "$meaning"
    else
        printf '      %s\n' "$line"
    fi
}

take_snapshot() {
    local line
    if ! on_host fimctl run "$data" -- "$in_host/backup" '{}' 2>&1 |
        while IFS= read -r line; do narrate "$line"; done; then
        fail "fimctl run"
    fi
}

# A number of the array's report, by its path in the JSON document.
array_says() {
    tfarray show --json >"$shared/array.json"
    sqlite3 :memory: "select json_extract(readfile('$shared/array.json'), '\$.$1')"
}

# One value of a line "name=value name=value".
value() {
    local word
    for word in $2; do
        if [[ $word == "$1="* ]]; then printf '%s' "${word#*=}"; fi
    done
}

prove_backup() {
    local begun ended verdict
    mkdir "$shared/restored"
    tar -C "$shared/restored" -xf "$shared/backup.tar"
    (cd "$shared/restored/busy" && sha256sum --quiet --check "$shared/manifest") ||
        fail "the archive and the copy it was made of differ"
    cmp "$shared/manifest" "$shared/manifest.later" || fail "the copy changed while it was read"
    begun=$(array_says last_cut.begun_ns)
    ended=$(array_says last_cut.ended_ns)
    verdict=$(tfwriter verify "$shared/restored/busy" --witness "$shared/witness" \
        --not-before "$begun" --not-after "$ended") || fail "the backup is not the state of the split"
    say "      the array cut the copy between two moments $(((ended - begun) / 1000)) microseconds apart;"
    say "      $(value ended_before "$verdict") steps had ended before," \
        "and step $(value begun_after "$verdict") began after them"
    say "      the backup is, byte for byte, the state after step $(value step "$verdict")" \
        "($(wc -l <"$shared/manifest") files)"
    say "      the writer has taken $(value taken_in_all "$verdict") steps by now: none of the later" \
        "ones is in the backup"
    [ "$(value taken_in_all "$verdict")" -gt "$(value step "$verdict")" ] ||
        fail "nothing was written after the split, so nothing is proved"
    if tfwriter verify "$shared/restored/busy" --witness "$shared/witness" \
        --not-before "$(tfwriter now)" >/dev/null 2>&1; then
        fail "the proof cannot tell the backup from the original"
    fi
}

check_original() {
    on_host pkill -TERM -x tfwriter || fail "the writer has died"
    wait
    on_host tfwriter verify "$data/busy" --witness "$in_host/witness" \
        --not-before "$(tfwriter now)" >/dev/null || fail "the original is damaged"
    on_host umount "$data"
    on_host fsck.ext4 -fn "$primary" >"$shared/fsck" 2>&1 || fail "$(cat "$shared/fsck")"
}

# shellcheck disable=SC2016  # what stands in single quotes is for the host's shell
check_released() {
    [ "$(array_says 'arrays[0].pairs[0].state_name')" = synchronised ] ||
        fail "the mirror does not follow its primary again"
    on_host sh -c '
        [ -z "$(ls /usr/quill/tessera/online_util/db_cntl)" ] || { echo "an array lock"; exit 1; }
        [ -z "$(ls -A /tmp)" ] || { echo "a temporary file"; exit 1; }
        ! grep /dev/sdq /etc/mtab || exit 1
        ! fimctl list | grep -q /data || { echo "a snapshot in the catalogue"; exit 1; }
        ' || fail "the snapshot was not released whole"
    tfarray check >/dev/null || fail "the array is inconsistent"
}

busy_file_system() {
    say "A lab world: one array, one host \"$host\"; your machine sees nothing of it."
    say "1. The host makes an ext4 file system on $primary and mounts it on $data."
    on_host mkfs.ext4 -q "$primary"
    on_host mkdir "$data"
    on_host mount "$primary" "$data"
    say "2. A program changes and creates files there, one numbered step after the other, without end;"
    start_writer
    say "   what it does when is written down elsewhere. It is past step $(steps) now."
    say "3. fimctl takes a snapshot with the library that ships, and a backup command reads the copy:"
    write_backup_command
    take_snapshot
    say "4. The proof:"
    prove_backup
    say "5. The original holds every one of its steps, is clean, and its mirror follows it again."
    check_original
    check_released
}
