// Volumes on real devices: their data, who holds them, and what is left when that ends.
#include <gtest/gtest.h>

#include <string>

#include "tests/lab_qzvm/qz_world.h"

namespace {

struct Volume : test::QzWorld {};

TEST_F(Volume, is_a_window_of_its_disk_behind_the_region_needs_root) {
    EXPECT_EQ(printed(R"(
on qzdg init datadg p0
on qzvol -g datadg make a 1M
on qzvol -g datadg make b 1500K --fstype xfs
on qzvol -g datadg startall
on sh -c 'printf first >/dev/qz/dsk/datadg/a; printf second >/dev/qz/rdsk/datadg/b; sync'
for mib in 1 2; do on dd if=/dev/qz/dmp/p0 bs=1M skip=$mib count=1 status=none | tr -d '\0'; echo; done
on qzvol -g datadg list | tr -s ' '
on blockdev --getsize64 /dev/qz/dsk/datadg/b
on stat -c '%F %a' /dev/qz/dsk/datadg/a /dev/qz/rdsk/datadg/a
)"),
              "first\nsecond\n"
              "VOLUME STATE MIB TYPE DISKS USE\n"
              "a started 1 - p0 -\n"
              "b started 2 xfs p0 -\n"
              "2097152\n"
              "block special file 600\nblock special file 600\n");
}

TEST_F(Volume, written_without_a_cache_is_in_the_mirror_of_a_split_at_once_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
on sh -c 'yes written | head -c 65536 | dd of=/dev/qz/dsk/datadg/vol2 bs=4096 oflag=direct status=none'
pairs split
on_backup
backup qzdg -C -n clone import datadg
backup qzvol -g clone startall
backup head -c 65536 /dev/qz/dsk/clone/vol2 | sort -u | head -1
)"),
              "written\n");
}

TEST_F(Volume, may_be_listed_over_several_disks_and_lives_on_the_first_needs_root) {
    EXPECT_EQ(printed(R"(
on qzdg init datadg p0 p1
on qzvol -g datadg make both 2M --disk p1 --disk /dev/qz/rdmp/p0
on qzvol -g datadg startall
on sh -c 'printf here >/dev/qz/dsk/datadg/both; sync'
on dd if=/dev/qz/dmp/p1 bs=1M skip=1 count=1 status=none | tr -d '\0'; echo
on qzvol -g datadg list | tail -1 | tr -s ' '
)"),
              "here\nboth started 2 - p1,p0 -\n");
}

TEST_F(Volume, that_is_mounted_keeps_its_group_from_being_deported_needs_root) {
    EXPECT_EQ(printed(R"(
group
regions >/run/before
refused on qzdg deport datadg
refused on qzdg -n other deport datadg
refused on qzvol -g datadg stopall
refused on qzvol -g datadg stop vol2 vol1
regions | cmp - /run/before
on qzvol -g datadg list | tr -s ' '
on touch /data/file
)"),
              "qzdg: volume vol1 of group datadg is mounted on /data\n"
              "qzdg: volume vol1 of group datadg is mounted on /data\n"
              "qzvol: volume vol1 of group datadg is mounted on /data\n"
              "qzvol: volume vol1 of group datadg is mounted on /data\n"
              "VOLUME STATE MIB TYPE DISKS USE\n"
              "vol1 started 40 ext4 p0 mounted on /data\n"
              "vol2 started 40 - p1 -\n");
}

TEST_F(Volume, that_a_process_has_open_keeps_its_group_too_needs_root) {
    EXPECT_EQ(printed(R"(
group
on umount /data
on sh -c 'exec 3<>/dev/qz/dsk/datadg/vol2; touch /exchange/open; exec sleep 600' &
until [ -e /run/tflab/exchange/open ]; do sleep 0.02; done
refused on qzdg deport datadg | sed -E 's/process [0-9]+/process N/'
on pkill -x sleep
wait || true
on qzdg deport datadg
)"),
              "qzdg: volume vol2 of group datadg is open in process N (sleep)\n");
}

TEST_F(Volume, that_is_started_keeps_the_array_from_joining_or_restoring_its_disks_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
backup qzdg -C -n clone import datadg
on umount /data
on qzdg deport datadg
backup qzvol -g clone startall
refused pairs establish
refused pairs restore
backup qzvol -g clone stopall
on qzdg import datadg
on qzvol -g datadg startall
refused pairs restore
on qzvol -g datadg stopall
pairs restore
)"),
              "tfarray: incremental establish: A host holds or has mounted the BCV (401)\n"
              "tfarray: restore: A host holds or has mounted the BCV (401)\n"
              "tfarray: restore: A host holds or has mounted the standard device (402)\n");
}

TEST_F(Volume, is_started_and_stopped_beside_others_that_are_mounted_needs_root) {
    EXPECT_EQ(printed(R"(
group
on qzvol -g datadg stop vol2
on ls /dev/qz/dsk/datadg
on qzvol -g datadg make vol3 8M --disk p0
on qzvol -g datadg start vol3
on ls /dev/qz/dsk/datadg
on touch /data/file
pairs restore 2>&1 || true
on qzvol -g datadg startall
on qzvol -g datadg startall
on ls /dev/qz/rdsk/datadg
# One that has ended counts until it is reaped.
until [ $(on pgrep -c -x qzvm-holder) = 1 ]; do sleep 0.02; done
)"),
              "vol1\nvol1\nvol3\n"
              "tfarray: restore: A host holds or has mounted the standard device (402)\n"
              "vol1\nvol2\nvol3\n");
}

TEST_F(Volume, is_not_made_or_removed_where_that_would_hurt_needs_root) {
    EXPECT_EQ(printed(R"(
group
on qzvset -g datadg make set1 vol2
refused on qzvol -g datadg make vol1 1M
refused on qzvol -g datadg make set1 1M
refused on qzvol -g datadg make big 1G
refused on qzvol -g datadg make big 15E
refused on qzvol -g datadg make none 0
refused on qzvol -g datadg make 'a b' 1M
refused on qzvol -g datadg make x 1M --disk p0 --disk p0
refused on qzvol -g datadg make x 1M --disk sdq
refused on qzvol -g datadg remove vol1
refused on qzvol -g datadg remove vol2
refused on qzvol -g datadg remove vol9
on qzvol -g datadg list | wc -l
)"),
              "qzvol: group datadg has a volume vol1 already\n"
              "qzvol: group datadg has a volume set set1 already\n"
              "qzvol: there is no room for volume big of 1024 MiB\n"
              "qzvol: there is no room for volume big of 16492674416640 MiB\n"
              "qzvol: a volume of no size cannot be made\n"
              "qzvol: 'a b' is no name for a volume\n"
              "qzvol: disk p0 is given twice\n"
              "qzvol: disk sdq does not belong to group datadg\n"
              "qzvol: volume vol1 of group datadg is started; stop it first\n"
              "qzvol: volume vol2 belongs to the volume set set1; remove that first\n"
              "qzvol: group datadg has no volume 'vol9'\n"
              "3\n");
}

TEST_F(Volume, takes_the_room_that_another_one_has_left_needs_root) {
    EXPECT_EQ(printed(R"(
on qzdg init datadg p0
for v in a b c; do on qzvol -g datadg make $v 8M; done
on qzvol -g datadg remove b
on qzvol -g datadg make d 9M
on qzvol -g datadg make e 8M
on head -c 4096 /dev/qz/dmp/p0 | tr -d '\0' | grep ^volume | cut -d ' ' -f 2-4
)"),
              "a 1048576 8388608\nc 17825792 8388608\nd 26214400 9437184\ne 9437184 8388608\n");
}

TEST_F(Volume, commands_at_once_are_done_one_after_the_other_needs_root) {
    EXPECT_EQ(printed(R"(
on qzdg init datadg p0 p1
for i in {1..12}; do on qzvol -g datadg make v$i 2M & done
for job in $(jobs -p); do wait "$job"; done
for i in {1..12}; do on qzvol -g datadg start v$i & done
for job in $(jobs -p); do wait "$job"; done
on ls /dev/qz/dsk/datadg | wc -l
on sh -c 'stat -c %t:%T /dev/qz/dsk/datadg/* | sort -u | wc -l'
until [ $(on pgrep -c -x qzvm-holder) = 1 ]; do sleep 0.02; done
)"),
              "12\n12\n");
}

struct VolumeSet : test::QzWorld {};

TEST_F(VolumeSet, is_listed_with_one_heading_line_and_names_first_needs_root) {
    EXPECT_EQ(printed(R"(
group
on /usr/sbin/qzvset -g datadg list
on qzvset -g datadg make set1 vol1 vol2
on /usr/sbin/qzvset -g datadg list
on /usr/sbin/qzvset -g datadg list set1 | tr -s ' ' | cut -d ' ' -f 1,2
refused on qzvset -g datadg list set2
refused on qzvset -g datadg make set2 vol1
refused on qzvset -g datadg make set2 vol9
refused on qzvset -g datadg make vol1 vol2
on qzvset -g datadg remove set1 || true
on umount /data
on qzvset -g datadg remove set1
on qzvset -g datadg list | wc -l
)"),
              "SET                  VOLUMES\n"
              "SET                  VOLUMES\n"
              "set1                 vol1,vol2\n"
              "VOLUME STATE\nvol1 started\nvol2 started\n"
              "qzvset: group datadg has no volume set 'set2'\n"
              "qzvset: volume vol1 belongs to the volume set set1\n"
              "qzvset: group datadg has no volume 'vol9'\n"
              "qzvset: group datadg has a volume vol1 already\n"
              "qzvset: volume set set1 of group datadg is in use\n"
              "1\n");
}

TEST_F(VolumeSet, has_a_node_of_its_own_that_leads_to_its_first_volume_needs_root) {
    EXPECT_EQ(printed(R"(
group
on qzvset -g datadg make set1 vol1 vol2
on umount /data
on qzvol -g datadg startall
on mount /dev/qz/dsk/datadg/set1 /data
on grep ' /data ' /etc/mtab | cut -d ' ' -f 1
refused on qzdg deport datadg
on umount /data
on qzvol -g datadg stop vol1
on ls /dev/qz/dsk/datadg
)"),
              "/dev/qz/dsk/datadg/set1\n"
              "qzdg: volume vol1 of group datadg is mounted on /data\n"
              "vol2\n");
}

struct Holder : test::QzWorld {};

TEST_F(Holder, ends_with_its_host_and_leaves_the_disks_to_the_array_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
backup qzdg -C -n clone import datadg
backup qzvol -g clone startall
backup mount /dev/qz/dsk/clone/vol1 /mnt
tflab host stop backup1
until pairs establish 2>/dev/null; do sleep 0.02; done
echo joined
)"),
              "joined\n");
}

TEST_F(Holder, ends_in_order_with_a_deport_and_is_no_zombie_needs_root) {
    EXPECT_EQ(printed(R"(
group
on umount /data
on qzdg deport datadg
until [ $(on ps -e -o comm= | grep -c qzvm-holder) = 0 ]; do sleep 0.02; done
on ls -A /run/qzvm/holders /dev/qz/dsk
pairs restore
)"),
              "/dev/qz/dsk:\n\n/run/qzvm/holders:\n");
}

TEST_F(Holder, does_not_keep_its_starter_s_output_open_needs_root) {
    EXPECT_EQ(printed(R"(
group
on qzvol -g datadg stop vol2
on qzvol -g datadg startall 2>&1 | cat
)"),
              "");
}

TEST_F(Holder, that_was_killed_leaves_a_mounted_volume_as_it_is_and_nothing_else_needs_root) {
    EXPECT_EQ(printed(R"(
group
on pkill -9 -x qzvm-holder
while on pgrep -x qzvm-holder >/dev/null; do sleep 0.02; done
on sh -c 'echo alive >/data/file && cat /data/file'
refused tfarray restore 000184500123 00A1 01A1
refused on qzvol -g datadg startall
refused on qzdg deport datadg
on qzvol -g datadg list | tr -s ' '
on umount /data
until [ $(on qzvol -g datadg list | grep -c started) = 0 ]; do sleep 0.02; done
on qzvol -g datadg startall
on mount /dev/qz/dsk/datadg/vol1 /data
on cat /data/file
on umount /data
on pkill -9 -x qzvm-holder
on qzdg deport datadg
on ls /dev/qz/dsk
pairs restore
)"),
              "alive\n"
              "tfarray: restore: A host holds or has mounted the standard device (402)\n"
              "qzvol: volume vol1 of group datadg is in use, though what held it was killed; end "
              "that use first\n"
              "qzdg: volume vol1 of group datadg is mounted on /data\n"
              "VOLUME STATE MIB TYPE DISKS USE\n"
              "vol1 started 40 ext4 p0 mounted on /data\n"
              "vol2 stopped 40 - p1 -\n"
              "alive\n");
}

TEST_F(Holder, is_right_whenever_the_command_that_starts_it_is_killed_needs_root) {
    // After each attempt the whole is done and undone; whatever was left must not be in the way.
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
killed_after() { backup timeout -s KILL 0.0$1 "${@:2}" >/dev/null 2>&1 || true; }
for time in 001 002 003 004 005 006 008 010 015 020; do
    killed_after $time qzdg -C -n clone import datadg
    backup qzdg list clone >/dev/null 2>&1 || backup qzdg -C -n clone import datadg
    killed_after $time qzvol -g clone startall
    backup qzdg -n datadg deport clone >/dev/null
    backup qzdg -C -n clone import datadg
    backup qzvol -g clone startall
    refused pairs establish >/dev/null
    killed_after $time qzvol -g clone stop vol2
    killed_after $time qzdg -n datadg deport clone
    if backup qzdg list clone >/dev/null 2>&1; then backup qzdg -n datadg deport clone; fi
    backup ls /dev/qz/dsk
done
backup pgrep -x qzvm-holder || echo none
pairs establish
)"),
              "none\n");
}

TEST_F(Holder, of_a_world_that_ends_with_volumes_mounted_leaves_nothing_needs_root) {
    // "tflab run" itself looks what is left, and would end with status 124.
    EXPECT_EQ(printed("group\non fsfreeze -f /data\n"), "");
}

}  // namespace
