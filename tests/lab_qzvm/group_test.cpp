// Disk groups on real devices: made, imported under either name, given up, damaged.
#include <gtest/gtest.h>

#include <string>

#include "tests/lab_qzvm/qz_world.h"

namespace {

struct Group : test::QzWorld {};

TEST_F(Group, is_written_to_its_disks_and_nowhere_else_needs_root) {
    EXPECT_EQ(printed(R"(
on qzdg init datadg p0 p1
regions
on qzdg list | tr -s ' ' | cut -d ' ' -f 1-3,5
on qzdisk list | tr -s ' '
)"),
              "qz/dmp/p0 group datadg 1 client1\n"
              "qz/dmp/p1 group datadg 1 client1\n"
              "sdq\nsdr\n"
              "GROUP STATE HOST DISKS\n"
              "datadg imported client1 p0,p1\n"
              "DISK STATE RAW DEVICE GROUP\n"
              "p0 online /dev/qz/rdmp/p0 datadg\n"
              "p1 online /dev/qz/rdmp/p1 datadg\n"
              "sdq undefined /dev/sdq -\n"
              "sdr undefined /dev/sdr -\n");
}

TEST_F(Group, is_found_on_its_mirrors_by_another_host_under_another_name_needs_root) {
    EXPECT_EQ(printed(R"(
group
on sh -c 'head -c 3000000 /dev/urandom >/data/file; sha256sum </data/file >/exchange/sum'
joined
parted
on sh -c 'echo later >/data/file'
on_backup
backup qzdg -C -n client1_datadg_clone import datadg
backup qzvol -g client1_datadg_clone startall
backup fsck.ext4 -nf /dev/qz/rdsk/client1_datadg_clone/vol1 >/dev/null 2>&1
backup mount /dev/qz/dsk/client1_datadg_clone/vol1 /mnt
backup sh -c 'sha256sum </mnt/file | cmp - /exchange/sum && echo same'
backup grep ' /mnt ' /etc/mtab | cut -d ' ' -f 1-3
backup /usr/sbin/qzdg list client1_datadg_clone | tail -1 | tr -s ' ' | cut -d ' ' -f 1-3,5
regions
backup umount /mnt
backup qzdg -n datadg deport client1_datadg_clone
backup ls /dev/qz
regions
refused backup /usr/sbin/qzdg list client1_datadg_clone
)"),
              "same\n"
              "/dev/qz/dsk/client1_datadg_clone/vol1 /mnt ext4\n"
              "client1_datadg_clone imported backup1 c2t0d1,c2t0d2\n"
              "qz/dmp/p0 group datadg 3 client1\n"
              "qz/dmp/p1 group datadg 3 client1\n"
              "sdq group client1_datadg_clone 4 backup1\n"
              "sdr group client1_datadg_clone 4 backup1\n"
              "dsk\nrdsk\n"
              "qz/dmp/p0 group datadg 3 client1\n"
              "qz/dmp/p1 group datadg 3 client1\n"
              "sdq group datadg 5 -\n"
              "sdr group datadg 5 -\n"
              "qzdg: group client1_datadg_clone is not imported here\n");
}

TEST_F(Group, comes_back_with_a_restore_whatever_its_mirrors_were_called_needs_root) {
    EXPECT_EQ(printed(R"(
group
on sh -c 'echo before >/data/file'
joined
parted
on_backup
backup qzdg -C -n clone import datadg
backup qzvol -g clone startall
backup qzdg -n datadg deport clone
on sh -c 'echo destroyed >/data/file'
on umount /data
on qzdg deport datadg
pairs restore
regions
on qzdg -C import datadg
on qzvol -g datadg startall
on fsck.ext4 -nf /dev/qz/rdsk/datadg/vol1 >/dev/null 2>&1
on mount /dev/qz/dsk/datadg/vol1 /data
on cat /data/file
regions
)"),
              "qz/dmp/p0 group datadg 5 -\n"
              "qz/dmp/p1 group datadg 5 -\n"
              "sdq\nsdr\n"
              "before\n"
              "qz/dmp/p0 group datadg 6 client1\n"
              "qz/dmp/p1 group datadg 6 client1\n"
              "sdq\nsdr\n");
}

TEST_F(Group, comes_back_with_a_restore_of_mirrors_that_were_never_imported_needs_root) {
    EXPECT_EQ(printed(R"(
group
on sh -c 'echo before >/data/file'
joined
parted
on sh -c 'echo destroyed >/data/file'
on umount /data
on qzdg deport datadg
pairs restore
on qzdg -C import datadg
on qzvol -g datadg startall
on mount /dev/qz/dsk/datadg/vol1 /data
on cat /data/file
)"),
              "before\n");
}

TEST_F(Group, that_another_host_has_imported_is_refused_without_clearing_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
regions >/run/before
refused backup qzdg -n clone import datadg
refused backup qzdg import datadg
regions | cmp - /run/before
)"),
              "qzdg: group datadg is imported on host client1; deport it there, or clear that with "
              "-C when the host does not use it\n"
              "qzdg: group datadg is imported on host client1; deport it there, or clear that with "
              "-C when the host does not use it\n");
}

TEST_F(Group, is_not_imported_twice_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
backup qzdg -C -n clone import datadg
refused backup qzdg -C -n clone import datadg
refused backup qzdg -C -n other import datadg
refused on qzdg -C import datadg
)"),
              "qzdg: group clone is imported here already\n"
              "qzdg: no disk that is online here and free belongs to a group datadg\n"
              "qzdg: group datadg is imported here already\n");
}

TEST_F(Group, of_this_host_s_own_mirrors_never_takes_the_disks_in_use_needs_root) {
    EXPECT_EQ(printed(R"(
group
on sh -c 'echo before >/data/file'
joined
parted
on sh -c 'echo after >/data/file'
for disk in sdq sdr p0 p1; do on qzdisk define $disk; on qzdisk online $disk; done
on qzdg -C -n clone import datadg
on qzvol -g clone startall
on mount /dev/qz/dsk/clone/vol1 /mnt
on cat /mnt/file /data/file
on qzdg list clone | tail -1 | tr -s ' ' | cut -d ' ' -f 1,2,5
)"),
              "before\nafter\nclone imported sdq,sdr\n");
}

TEST_F(Group, takes_of_two_disks_with_one_id_the_one_put_online_last_needs_root) {
    EXPECT_EQ(printed(R"(
group
on umount /data
joined
pairs split
on qzdg deport datadg
for disk in sdr sdq; do on qzdisk define $disk; on qzdisk online $disk; done
on qzdisk online p1
on qzdg -C import datadg
on qzdg list datadg | tail -1 | tr -s ' ' | cut -d ' ' -f 5
)"),
              "disk p0 is passed over: sdq has the same id and was put online later\n"
              "disk sdr is passed over: p1 has the same id and was put online later\n"
              "sdq,p1\n");
}

TEST_F(Group, needs_all_of_its_disks_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
backup qzdisk offline c2t0d2
regions >/run/before
refused backup qzdg -C -n clone import datadg | sed -E 's/[0-9a-f]{16}/ID/'
tfarray path down backup1 /dev/rdsk/c2t0d2
backup qzdisk undefine c2t0d1
backup qzdisk define c2t0d1
backup qzdisk online c2t0d1
refused backup qzdg -C -n clone import datadg | sed -E 's/[0-9a-f]{16}/ID/'
regions | cmp - /run/before
backup qzdg list | tr -s ' ' | cut -d ' ' -f 1-3,5
)"),
              "qzdg: disk p1 (id ID) of group datadg is missing: no disk that is online here and "
              "free carries it\n"
              "qzdg: disk p1 (id ID) of group datadg is missing: no disk that is online here and "
              "free carries it\n"
              "GROUP STATE HOST DISKS\n"
              "datadg foreign client1 c2t0d1\n");
}

TEST_F(Group, with_a_disk_whose_path_is_down_says_so_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
tfarray path down backup1 /dev/rdsk/c2t0d2
refused backup qzdg -C -n clone import datadg | sed -E 's/[0-9a-f]{16}/ID/'
tfarray path up backup1 /dev/rdsk/c2t0d2
backup qzdg -C -n clone import datadg
tfarray path down backup1 /dev/rdsk/c2t0d2
refused backup qzdg -n datadg deport clone
backup qzdg list clone >/dev/null
tfarray path up backup1 /dev/rdsk/c2t0d2
backup qzdg -n datadg deport clone
)"),
              "qzdg: disk p1 (id ID) of group datadg is missing: no disk that is online here and "
              "free carries it; cannot open /dev/rdsk/c2t0d2: No such device or address\n"
              "qzdg: cannot open /dev/rdsk/c2t0d2: No such device or address\n");
}

TEST_F(Group, with_a_damaged_region_is_neither_imported_nor_deported_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
backup dd if=/dev/rdsk/c2t0d2 of=/tmp/region bs=4096 count=1 status=none
damage() {
    backup sh -c 'printf x | dd of=/dev/rdsk/c2t0d2 bs=1 seek=60 conv=notrunc,fsync status=none'
}
damage
regions >/run/before
refused backup qzdg -C -n clone import datadg | sed -E 's/[0-9a-f]{16}/ID/'
backup qzdisk list c2t0d2 | tail -1 | tr -s ' '
regions | cmp - /run/before
backup dd if=/tmp/region of=/dev/rdsk/c2t0d2 conv=fsync status=none
backup qzdg -C -n clone import datadg
damage
regions >/run/before
refused backup qzdg -n datadg deport clone
refused backup qzvol -g clone startall
regions | cmp - /run/before
)"),
              "qzdg: disk p1 (id ID) of group datadg is missing: no disk that is online here and "
              "free carries it; the private region of disk c2t0d2 is damaged: its checksum is "
              "wrong\n"
              "c2t0d2 online /dev/rdsk/c2t0d2 (damaged)\n"
              "qzdg: the private region of disk c2t0d2 is damaged: its checksum is wrong\n"
              "qzvol: the private region of disk c2t0d2 is damaged: its checksum is wrong\n");
}

TEST_F(Group, whose_mirrors_were_joined_behind_its_back_can_still_be_deported_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
backup qzdg -C -n clone import datadg
joined
regions
refused backup qzvol -g clone startall
backup qzdg list clone | tail -1 | tr -s ' ' | cut -d ' ' -f 1,2
backup qzdg -n datadg deport clone
refused backup qzdg list clone
pairs split
regions
)"),
              "qz/dmp/p0 group datadg 3 client1\n"
              "qz/dmp/p1 group datadg 3 client1\n"
              "sdq\nsdr\n"
              "qzvol: disk c2t0d1 does not carry the group any more and is left as it is\n"
              "clone imported\n"
              "disk c2t0d1 does not carry the group any more and is left as it is\n"
              "disk c2t0d2 does not carry the group any more and is left as it is\n"
              "qzdg: group clone is not imported here\n"
              "qz/dmp/p0 group datadg 3 client1\n"
              "qz/dmp/p1 group datadg 3 client1\n"
              "sdq group datadg 3 client1\n"
              "sdr group datadg 3 client1\n");
}

TEST_F(Group, of_joined_mirrors_is_not_seen_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
on_backup
backup qzdg list | wc -l
backup qzdisk list c2t0d1 | tail -1 | tr -s ' '
refused backup qzdg -C -n clone import datadg
)"),
              "1\nc2t0d1 online /dev/rdsk/c2t0d1 (no capacity)\n"
              "qzdg: no disk that is online here and free belongs to a group datadg\n");
}

TEST_F(Group, is_read_anew_after_every_split_needs_root) {
    EXPECT_EQ(printed(R"(
group
on_backup
for turn in 1 2 3; do
    on sh -c "echo $turn >/data/file"
    on qzvol -g datadg make extra$turn 1M
    joined
    parted
    backup qzdg list >/dev/null
    backup qzdg -C -n clone import datadg
    backup qzvol -g clone startall
    backup mount /dev/qz/dsk/clone/vol1 /mnt
    backup cat /mnt/file
    backup ls /dev/qz/dsk/clone | tr '\n' ' '; echo
    backup umount /mnt
    backup qzdg -n datadg deport clone
done
)"),
              "1\nextra1 vol1 vol2 \n2\nextra1 extra2 vol1 vol2 \n"
              "3\nextra1 extra2 extra3 vol1 vol2 \n");
}

TEST_F(Group, is_imported_again_by_its_own_host_after_a_restart_needs_root) {
    EXPECT_EQ(printed(R"(
group
on sh -c 'echo kept >/data/file'
tflab host stop client1
tflab host start client1
on qzdg list
for disk in p0 p1; do on qzdisk define $disk; on qzdisk online $disk; done
on qzdg import datadg
# The stopped host's mount lets its disk go a moment after its last process.
until on qzvol -g datadg startall 2>/dev/null; do sleep 0.02; done
on mount /dev/qz/dsk/datadg/vol1 /mnt
on cat /mnt/file
)"),
              "GROUP                           STATE     HOST         ID               DISKS\n"
              "kept\n");
}

TEST_F(Group, is_made_only_of_disks_that_hold_nothing_needs_root) {
    EXPECT_EQ(printed(R"(
on mkfs.ext4 -q -F /dev/qz/dmp/p0
refused on qzdg init datadg p0
on mount /dev/qz/dmp/p0 /mnt
refused on qzdg -f init datadg p0
on umount /mnt
on qzdg -f init datadg p0
refused on qzdg init other p0 p1
refused on qzdg init datadg p1
refused on qzdg init other p1 /dev/qz/rdmp/p1
refused on qzdg init other p9
refused on qzdg init 'other/dg' p1
on qzdg deport datadg
refused on qzdg -f init other p0
joined
refused on qzdg init other sdq
)"),
              "qzdg: disk p0 holds something else; -f overwrites it\n"
              "qzdg: cannot take disk p0 for the group: Device or resource busy\n"
              "qzdg: disk p0 belongs to group datadg, which is imported here\n"
              "qzdg: group datadg is imported here already\n"
              "qzdg: disk p1 is given twice\n"
              "qzdg: this host sees no disk 'p9'\n"
              "qzdg: 'other/dg' is no name for a group\n"
              "qzdg: disk p0 belongs to group datadg; import that group and destroy it first\n"
              "qzdg: disk sdq has no room for a group (a mirror that is joined to its primary has "
              "none)\n");
}

TEST_F(Group, that_is_destroyed_leaves_blank_regions_needs_root) {
    EXPECT_EQ(printed(R"(
group
refused on qzdg destroy datadg
on umount /data
on qzdg destroy datadg
regions
on qzdg list | wc -l
on ls /dev/qz/dsk
on qzdg init datadg p0 p1
)"),
              "qzdg: volume vol1 of group datadg is mounted on /data\n"
              "qz/dmp/p0\nqz/dmp/p1\nsdq\nsdr\n1\n");
}

TEST_F(Group, with_a_damaged_region_can_be_destroyed_needs_root) {
    EXPECT_EQ(
        printed(R"(
on qzdg init datadg p0 p1
on sh -c 'printf x | dd of=/dev/qz/dmp/p1 bs=1 seek=60 conv=notrunc,fsync status=none'
on qzdg list datadg | tail -1 | tr -s ' '
refused on qzdg deport datadg
on qzdg destroy datadg
regions
)"),
        "datadg imported - - the private region of disk p1 is damaged: its checksum is wrong\n"
        "qzdg: the private region of disk p1 is damaged: its checksum is wrong\n"
        "qz/dmp/p0\nqz/dmp/p1\nsdq\nsdr\n");
}

TEST_F(Group, that_is_interrupted_while_it_is_imported_can_be_given_up_needs_root) {
    // As it is when the command is killed between the host's note and the second disk.
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
backup dd if=/dev/rdsk/c2t0d2 of=/tmp/region bs=4096 count=1 status=none
backup qzdg -C -n clone import datadg
backup dd if=/tmp/region of=/dev/rdsk/c2t0d2 conv=fsync status=none
backup qzdg -n datadg deport clone
regions
backup qzdg -C -n clone import datadg
)"),
              "disk c2t0d2 does not carry the group any more and is left as it is\n"
              "qz/dmp/p0 group datadg 3 client1\n"
              "qz/dmp/p1 group datadg 3 client1\n"
              "sdq group datadg 5 -\n"
              "sdr group datadg 3 client1\n");
}

}  // namespace
