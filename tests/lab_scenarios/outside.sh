#!/usr/bin/env bash
# Runs a line of the shell under a root that is the machine's with a layer over it that takes what is
# written, and then lists what the layer holds: that is what the line changed on the machine.
# Status: the line's; 77 when there can be no such layer.
#
# usage: outside.sh LINE
set -euo pipefail

[ "$(id -u)" = 0 ] || exit 77
if [ "${OUTSIDE_STAGE:-}" = "" ]; then
    OUTSIDE_STAGE=1 exec unshare --mount --propagation private "$0" "$@"
fi

mount -t tmpfs layer /run
mkdir /run/upper /run/work /run/root
mount -t overlay machine -o lowerdir=/,upperdir=/run/upper,workdir=/run/work /run/root || exit 77
cd /run/root
# What is a file system of its own is empty in the layer. These are needed; of /dev only the devices
# that worlds take from the machine.
mount --rbind /proc proc
mount -t sysfs -o ro sysfs sys
mount -t tmpfs -o mode=755 dev dev
cp -a /dev/null /dev/zero /dev/full /dev/random /dev/urandom /dev/tty /dev/loop-control dev/
mkdir dev/pts dev/shm
ln -s /proc/self/fd dev/fd
# Folders of other disks, which a build folder may be on, can be seen and not changed.
while read -r _ folder kind _; do
    case $folder in
    / | /proc* | /sys* | /dev* | /run* | /mnt/*) continue ;;
    esac
    case $kind in
    ext* | xfs | btrfs | f2fs | overlay | tmpfs | 9p | virtiofs)
        [ -d ".$folder" ] || continue
        mount --bind "$folder" ".$folder"
        mount -o remount,bind,ro ".$folder"
        ;;
    esac
done < <(cat /proc/self/mounts)
mount -t tmpfs run run
mkdir run/old run/layer
mount --bind /run run/layer
# Not chroot: who enters a mount namespace later gets its root, which would still be the machine's.
pivot_root . run/old
cd /
umount -l /run/old

state() {
    (cd /run/layer/upper && find . -mindepth 1 -printf 'changed: /%P\n' | sort)
    find /dev /run -path /run/layer -prune -o -printf '%p %M %s\n' | sort
    cat /proc/self/mounts
}
before=$(state)
status=0
bash -c "$1" || status=$?
diff <(echo "$before") <(state) | sed -n 's/^[<>] //p' || true
exit $status
