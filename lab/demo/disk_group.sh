# The demo's second act, sourced by demo.sh inside its world: a disk group with two volumes is copied, read on the
# backup host, and restored after its files were destroyed.
# shellcheck shell=bash
# shellcheck disable=SC2154  # what demo.sh shares
readonly primary_host=client1 backup_host=backup1
readonly group=datadg
# Each volume: its name, file system and size. The group lies on two disks, and so does its second volume.
readonly volumes=("sales ext4 300M p0" "orders xfs 400M p1,p0")

on_primary() {
    tflab exec "$primary_host" -- "$@"
}

on_backup() {
    tflab exec "$backup_host" -- "$@"
}

# Runs a command line on a host, shown as somebody types it there; what it says is indented.
typed_on() {
    local name=$1 line=$2 status=0
    say "      $name# $line"
    tflab exec "$name" -- bash -c "$line" >"$shared/said" 2>&1 || status=$?
    sed 's/^/        /' "$shared/said"
    [ $status -eq 0 ] || fail "on $name: $line"
}

make_group() {
    local name type size disks
    on_primary qzdg init "$group" p0 p1
    for volume in "${volumes[@]}"; do
        read -r name type size disks <<<"$volume"
        # shellcheck disable=SC2086  # the disks are several words
        on_primary qzvol -g "$group" make "$name" "$size" ${disks:+$(printf -- '--disk %s ' ${disks//,/ })}
    done
    on_primary qzvol -g "$group" startall
    for volume in "${volumes[@]}"; do
        read -r name type size disks <<<"$volume"
        on_primary "mkfs.$type" -q "/dev/qz/dsk/$group/$name" >/dev/null
        on_primary mkdir "/$name"
        on_primary mount "/dev/qz/dsk/$group/$name" "/$name"
        on_primary cp -r /etc /usr/include "/$name/"
    done
    # The host's configuration says that this backup host imports mirrors as a disk group.
    on_primary sh -c "echo dgimport_$backup_host=yes >>/usr/quill/tessera/tq.conf"
}

# The checksum of every file of both volumes below a folder a volume.
checksums() {
    local runner=$1 file=$2 folder
    shift 2
    for folder in "$@"; do
        "$runner" sh -c "cd $folder && find . -type f -print0 | sort -z | xargs -0 sha256sum" ||
            fail "the files of $folder cannot be read"
    done >"$file"
}

expect_no_difference() {
    cmp -s "$1" "$2" || fail "$3 differs: $(diff "$1" "$2" | head -n 3)"
    say "      $(wc -l <"$1") files: every checksum is that of the original"
}

back_up_on_the_other_host() {
    local id=$1
    typed_on "$primary_host" "fimctl -q export $id --output /exchange/on-its-way"
    typed_on "$backup_host" "fimctl -q import /exchange/on-its-way"
    typed_on "$backup_host" "fimctl -q mount 1"
    on_backup qzdg list >"$shared/groups"
    grep -q "${primary_host}_${group}_clone" "$shared/groups" || fail "the clone group is not imported"
    # shellcheck disable=SC2046  # two folders, two words
    checksums on_backup "$shared/on_backup" $(cat "$shared/said")
    expect_no_difference "$shared/original" "$shared/on_backup" "the copy on $backup_host"
    typed_on "$backup_host" "fimctl -q release 1 && fimctl -q export 1 --output /exchange/on-its-way-back"
    typed_on "$primary_host" "fimctl -q import /exchange/on-its-way-back"
}

# shellcheck disable=SC2016  # the host's shell expands it
destroy_the_files() {
    on_primary sh -c 'rm -rf /sales/* && find /orders -type f -exec sh -c "for f; do echo gone >\$f; done" - {} +'
    on_primary sync
    checksums on_primary "$shared/destroyed" /sales /orders
    ! cmp -s "$shared/original" "$shared/destroyed" || fail "nothing was destroyed"
}

restore_them() {
    local id=$1 code
    typed_on "$primary_host" "fimctl restore $id --plan-only"
    on_primary fimctl restore "$id" --plan-only --json >"$shared/plan.json"
    code=$(sqlite3 :memory: "select json_extract(readfile('$shared/plan.json'), '\$.code')")
    typed_on "$primary_host" "fimctl -q restore $id --confirm $code"
    checksums on_primary "$shared/restored" /sales /orders
    expect_no_difference "$shared/original" "$shared/restored" "what was restored"
}

check_everything_is_clean() {
    on_primary umount /sales /orders
    on_primary fsck.ext4 -fn "/dev/qz/dsk/$group/sales" >"$shared/fsck" 2>&1 || fail "$(cat "$shared/fsck")"
    on_primary xfs_repair -n "/dev/qz/dsk/$group/orders" >"$shared/fsck" 2>&1 || fail "$(cat "$shared/fsck")"
    # shellcheck disable=SC2016  # what stands in single quotes is for the host's shell
    for runner in on_primary on_backup; do
        "$runner" sh -c '
            [ -z "$(ls /usr/quill/tessera/online_util/db_cntl)" ] || { echo "an array lock"; exit 1; }
            [ -z "$(ls -A /tmp)" ] || { echo "a temporary file"; exit 1; }
            ! grep _clone /etc/mtab || exit 1
            ' || fail "$runner: something is left"
        "$runner" fimctl -q orphans >"$shared/said" || fail "$(cat "$shared/said")"
        [ ! -s "$shared/said" ] || fail "$runner: $(cat "$shared/said")"
    done
    tfarray check >/dev/null || fail "the array is inconsistent"
}

disk_group() {
    local id
    say ""
    say "Second act: volumes, and a second host. $primary_host has the primary disks, $backup_host sees the"
    say "mirrors alone, under names of its own; the two share one array and an exchange folder."
    say "1. $primary_host makes the disk group $group of two disks, with an ext4 and an xfs volume full of files."
    make_group
    checksums on_primary "$shared/original" /sales /orders
    say "2. A snapshot of both volumes, for $backup_host:"
    typed_on "$primary_host" "fimctl -q freeze --config alternate_backup_client=$backup_host /sales /orders"
    id=$(cat "$shared/said")
    say "3. $backup_host imports the mirrors' disk group under another name, checks and mounts the copies:"
    back_up_on_the_other_host "$id"
    say "4. On $primary_host all files of /sales are removed, and those of /orders overwritten."
    destroy_the_files
    say "5. The mirrors still hold the instant of the snapshot. A restore shows its plan, and needs its code:"
    restore_them "$id"
    say "6. Both file systems are clean, the array consistent, nothing of the snapshot is left on either host."
    check_everything_is_clean
}
