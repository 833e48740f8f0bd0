// The whole cycle of a snapshot with everything that ships, on real file systems.
#include <gtest/gtest.h>

#include <string>

#include "tests/lab_host/world_script.h"

namespace {

struct Cycle : test::WorldScript {};

TEST_F(Cycle, copy_holds_what_was_written_before_and_nothing_after_needs_root) {
    EXPECT_EQ(printed("demo", R"(
file_system ext4 /dev/qz/dmp/p0 /data
on sh -c 'echo before >/data/file'
fim run /data -- sh -c 'echo after >/data/file; echo new >/data/new; cat "$1"/file; ls "$1"' x {}
on cat /data/file
)"),
              "before\nfile\nlost+found\nafter\n");
}

TEST_F(Cycle, copy_of_an_xfs_is_mounted_beside_it_needs_root) {
    EXPECT_EQ(printed("demo", R"(
file_system xfs /dev/qz/dmp/p0 /data
on sh -c 'echo before >/data/file'
fim run /data -- sh -c 'echo after >/data/file; cat "$1"/file; grep " $1 " /etc/mtab |
    cut -d " " -f 1,3' x {}
)"),
              "before\n/dev/sdq xfs\n");
}

TEST_F(Cycle, one_snapshot_of_two_file_systems_is_one_instant_needs_root) {
    // Every line goes into the first file before it goes into the second, each in one write.
    EXPECT_EQ(printed("small", R"(
file_system ext4 /dev/qz/dmp/p0 /one
file_system ext4 /dev/qz/dmp/p1 /two
on sh -c 'while :; do echo line >>/one/n; echo line >>/two/n; done' &
until on test -s /two/n; do sleep 0.02; done
for turn in 1 2 3; do
    fim run /one /two -- bash -c '
        one=$(wc -l <"$1"/n) two=$(wc -l <"$2"/n)
        [ $one -eq $two ] || [ $one -eq $((two + 1)) ] || echo "$one in one, $two in two"
        echo compared' x {}
done
)"),
              "compared\ncompared\ncompared\n");
}

TEST_F(Cycle, block_device_is_handed_out_as_its_mirror_needs_root) {
    EXPECT_EQ(printed("demo", R"(
on sh -c 'echo before | dd of=/dev/qz/dmp/p0 conv=fsync status=none'
fim run /dev/qz/dmp/p0 -- sh -c 'echo "$1"; head -c 7 "$1"' x {}
)"),
              "/dev/sdq\nbefore\n");
}

TEST_F(Cycle, goes_step_by_step_in_processes_of_their_own_needs_root) {
    EXPECT_EQ(printed("demo", R"(
file_system ext4 /dev/qz/dmp/p0 /data
on sh -c 'echo before >/data/file'
fim freeze /data
on sh -c 'echo after >/data/file'
copy=$(fim mount 1)
on cat "$copy/file"
fim release 1
on sh -c '! grep /dev/sdq /etc/mtab'
tfarray clock advance 100 >/dev/null
tfarray show | grep -o 'synchronised'
)"),
              "1\nbefore\nsynchronised\n");
}

TEST_F(Cycle, twenty_in_a_row_leave_no_file_lock_or_mount_needs_root) {
    EXPECT_EQ(printed("demo", R"(
file_system ext4 /dev/qz/dmp/p0 /data
on cat /etc/mtab >/run/before
for turn in {1..20}; do fim run /data -- true; done
on cat /etc/mtab | cmp - /run/before
on sh -c 'ls -A /tmp /usr/quill/tessera/online_util/db_cntl /var/lib/fimctl/mnt /var/lib/fimctl/tmp'
tfarray check
)"),
              "/tmp:\n\n/usr/quill/tessera/online_util/db_cntl:\n\n/var/lib/fimctl/mnt:\n\n"
              "/var/lib/fimctl/tmp:\n");
}

TEST_F(Cycle, killed_command_leaves_a_snapshot_that_is_released_by_hand_needs_root) {
    EXPECT_EQ(printed("demo", R"(
file_system ext4 /dev/qz/dmp/p0 /data
fim run /data -- sh -c 'touch /exchange/runs; sleep 600' &
until [ -e /run/tflab/exchange/runs ]; do sleep 0.02; done
on pkill -9 -x fimctl
wait || true
on pkill -x sleep
fim release 1
on sh -c '! grep /dev/sdq /etc/mtab; touch /data/alive'
fim list | tail -n +2
)"),
              "");
}

}  // namespace
