// The commands as the method gives them, and what they refuse.
#include <gtest/gtest.h>

#include <string>

#include "tests/lab_qzvm/qz_world.h"

namespace {

struct Command : test::QzWorld {};

TEST_F(Command, lines_of_the_method_are_understood_to_the_letter_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
by_shell() { backup sh -c "$1" >/dev/null 2>&1 && echo "0" || echo "$?"; }
by_shell '/usr/sbin/qzdisk list c2t0d1'
by_shell '/usr/sbin/qzdisk define c2t0d1'
by_shell '/usr/sbin/qzdisk online c2t0d1'
by_shell '/usr/sbin/qzdisk list c2t0d1'
by_shell '/usr/sbin/qzdisk define c2t0d2; /usr/sbin/qzdisk online c2t0d2'
by_shell '/usr/sbin/qzdg list clone'
by_shell '/usr/sbin/qzdg -C -n clone import datadg'
by_shell '/usr/sbin/qzdg list clone'
by_shell '/usr/sbin/qzvol -g clone startall'
by_shell '/usr/sbin/qzvset -g clone list'
by_shell '/usr/sbin/qzvset -g clone list set1'
by_shell '/usr/sbin/qzdg -n datadg deport clone'
by_shell '/usr/sbin/qzdctl enable'
by_shell '/usr/sbin/qzdg -C import datadg'
by_shell '/usr/sbin/qzdg deport datadg'
)"),
              "1\n0\n0\n0\n0\n1\n0\n0\n0\n0\n1\n0\n0\n0\n0\n");
}

TEST_F(Command, qzdisk_takes_a_name_that_is_empty_needs_root) {
    EXPECT_EQ(printed(R"(
for form in "qzdisk list" "qzdisk list " "qzdisk list ''"; do
    backup sh -c "$form" | wc -l
done
for form in "qzdisk define " "qzdisk online ''" "qzdisk define ''" "qzdisk list c9t9d9"; do
    refused backup sh -c "$form" | head -1
done
)"),
              "3\n3\n3\n"
              "disk is required\n"
              "qzdisk: this host sees no disk ''\n"
              "qzdisk: this host sees no disk ''\n"
              "qzdisk: this host sees no disk 'c9t9d9'\n");
}

TEST_F(Command, disks_that_are_not_online_take_no_part_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
refused backup qzdg -C -n clone import datadg
for disk in c2t0d1 c2t0d2; do backup qzdisk define $disk; done
refused backup qzdg -C -n clone import datadg
backup qzdisk list | tr -s ' '
refused on qzdisk offline p0
refused on qzdisk undefine p1
)"),
              "qzdg: no disk that is online here and free belongs to a group datadg\n"
              "qzdg: no disk that is online here and free belongs to a group datadg\n"
              "DISK STATE RAW DEVICE GROUP\n"
              "c2t0d1 offline /dev/rdsk/c2t0d1 -\n"
              "c2t0d2 offline /dev/rdsk/c2t0d2 -\n"
              "qzdisk: disk p0 belongs to group datadg, which is imported here; deport that first\n"
              "qzdisk: disk p1 belongs to group datadg, which is imported here; deport that "
              "first\n");
}

TEST_F(Command, qzdctl_enable_lets_imports_go_on_after_a_stall_needs_root) {
    EXPECT_EQ(printed(R"(
group
joined
parted
on_backup
backup qzdctl status
backup qzdctl stall
backup qzdctl status
refused backup qzdg -C -n clone import datadg
refused backup qzdg -C -n clone import datadg
backup qzdg list >/dev/null
backup /usr/sbin/qzdctl enable
backup qzdg -C -n clone import datadg
backup qzdctl disable
backup qzvol -g clone startall
backup qzdg -n datadg deport clone
refused backup qzdg -C -n clone import datadg
on qzdctl status
)"),
              "enabled\n"
              "stalled: it answers no import\n"
              "qzdg: the volume manager's daemon does not answer; 'qzdctl enable' starts it anew\n"
              "qzdg: the volume manager's daemon does not answer; 'qzdctl enable' starts it anew\n"
              "qzdg: the volume manager's daemon is disabled; 'qzdctl enable' enables it\n"
              "enabled\n");
}

TEST_F(Command, that_is_not_understood_is_status_2_and_changes_nothing_needs_root) {
    EXPECT_EQ(printed(R"(
group
on umount /data
regions >/run/before
on sh -c 'cat /run/qzvm/state' >/run/state
status() { on "$@" >/dev/null 2>/run/said && echo "succeeded: $*" || echo "$?"; test -s /run/said; }
status qzdg
status qzdg -x deport datadg
status qzdg deport datadg --force-it
status qzdg deport
status qzdg deport datadg other
status qzdg explode datadg
status qzdg -C deport datadg
status qzdg -C list
status qzdg -n x init datadg p0
status qzdg -n
status qzdg -f import datadg
status qzvol startall
status qzvol -g datadg
status qzvol -g datadg make v
status qzvol -g datadg make v large
status qzvset list
status qzdctl
status qzdisk define
status lockfs
status lockfs -x /data
status lockfs -w
regions | cmp - /run/before
on sh -c 'cat /run/qzvm/state' | cmp - /run/state
)"),
              "2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n2\n");
}

TEST_F(Command, about_a_group_that_is_not_here_fails_and_names_it_needs_root) {
    EXPECT_EQ(printed(R"(
for command in "qzdg list nodg" "qzdg deport nodg" "qzdg destroy nodg" "qzdg import nodg" \
    "qzvol -g nodg startall" "qzvol -g nodg stopall" "qzvol -g nodg list" "qzvset -g nodg list"; do
    refused on $command
done
)"),
              "qzdg: group nodg is not imported here\n"
              "qzdg: group nodg is not imported here\n"
              "qzdg: group nodg is not imported here\n"
              "qzdg: no disk that is online here and free belongs to a group nodg\n"
              "qzvol: group nodg is not imported here\n"
              "qzvol: group nodg is not imported here\n"
              "qzvol: group nodg is not imported here\n"
              "qzvset: group nodg is not imported here\n");
}

TEST_F(Command, help_is_on_standard_output_needs_root) {
    EXPECT_EQ(printed(R"(
for name in qzdg qzdisk qzdctl qzvol qzvset; do on $name --help | grep -c '^Subcommands'; done
)"),
              "1\n1\n1\n1\n1\n");
}

TEST_F(Command, lockfs_stops_and_resumes_the_writes_of_a_mounted_file_system_needs_root) {
    EXPECT_EQ(printed(R"(
group
on sh -c '/usr/sbin/lockfs -w  /data'
(on touch /data/file; touch /run/written) &
until on ps -e -o stat=,args= | grep -q '^D.*touch'; do sleep 0.02; done
test ! -e /run/written && echo stopped
refused on lockfs -w /data
on sh -c '/usr/sbin/lockfs -u  /data'
wait
test -e /run/written && echo resumed
refused on lockfs -u /data
on mkdir /data/folder
refused on lockfs -w /data/folder
refused on lockfs -w /data/file
refused on lockfs -w /nowhere
)"),
              "stopped\n"
              "lockfs: cannot stop the writes to /data: Device or resource busy\n"
              "resumed\n"
              "lockfs: cannot resume the writes to /data: Invalid argument\n"
              "lockfs: nothing is mounted on /data/folder\n"
              "lockfs: cannot open /data/file: Not a directory\n"
              "lockfs: cannot open /nowhere: No such file or directory\n");
}

}  // namespace
