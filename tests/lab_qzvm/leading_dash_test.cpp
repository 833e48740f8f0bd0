// A name that begins with a dash reaches every tool as it is, as a word that may be an option. Here
// is what each of them makes of it, in the command lines of the method: nothing that a name could
// be after.
#include <gtest/gtest.h>

#include <string>

#include "tests/lab_qzvm/qz_world.h"

namespace {

struct LeadingDash : test::QzWorld {
    // Runs these command lines on client1, each of which must fail, with a group that is in use.
    // What the tools change elsewhere than in the group would show in the regions. Returns the
    // statuses.
    std::string statuses(const std::string &lines) {
        return printed(
            "group\n"
            "on sh -c 'ls -A / /tmp /data /dev/qz/*; cat /run/qzvm/state' >/run/before\n"
            "regions >>/run/before\n"
            "while IFS= read -r line; do\n"
            "    on sh -c \"$line\" >/dev/null 2>/run/said </dev/null && echo 0 || echo $?\n"
            "    test -s /run/said\n"
            "done <<'LINES'\n" +
            lines +
            "LINES\n"
            "on sh -c 'ls -A / /tmp /data /dev/qz/*; cat /run/qzvm/state' >/run/after\n"
            "regions >>/run/after\n"
            "cmp /run/before /run/after\n");
    }
};

TEST_F(LeadingDash, is_no_name_for_the_disk_group_command_needs_root) {
    EXPECT_EQ(statuses("/usr/sbin/qzdg list -rf\n"
                       "/usr/sbin/qzdg -C import --all\n"
                       "/usr/sbin/qzdg -C -n -x import datadg\n"
                       "/usr/sbin/qzdg -n datadg deport -x\n"
                       "/usr/sbin/qzdg deport -x\n"),
              "2\n2\n1\n2\n2\n");
}

TEST_F(LeadingDash, is_no_name_for_the_commands_of_disks_and_volumes_needs_root) {
    EXPECT_EQ(statuses("/usr/sbin/qzdisk list -x\n"
                       "/usr/sbin/qzdisk define -x\n"
                       "/usr/sbin/qzdisk online --all\n"
                       "/usr/sbin/qzvol -g -x startall\n"
                       "/usr/sbin/qzvset -g -x list\n"
                       "/usr/sbin/qzvset -g datadg list -x\n"),
              "2\n2\n2\n1\n1\n2\n");
}

TEST_F(LeadingDash, is_no_name_for_the_clone_tool_and_the_information_tool_needs_root) {
    EXPECT_EQ(statuses("/usr/quill/tessera/bin/tqdgclone -g -x -n vol1 -f /tmp/list -p DEFAULT\n"
                       "/usr/quill/tessera/bin/tqdgclone -g datadg -n -x -f /tmp/list -p DEFAULT\n"
                       "/usr/quill/tessera/bin/tqdgclone -g datadg -n vol1 -f -x -p -x\n"
                       "/usr/quill/tessera/bin/tqdgclone -g datadg -n vol1 -d -x,-y -p DEFAULT\n"
                       "/usr/quill/tessera/bin/tqdgclone -g datadg -n vol1 -c -x\n"
                       "/usr/quill/tessera/bin/tqtpcinfo -f -p -x -o -\n"
                       "/usr/quill/tessera/bin/tqtpcinfo -f -p --help -o -\n"),
              "1\n1\n1\n1\n1\n1\n1\n");
}

TEST_F(LeadingDash, is_a_path_for_the_commands_of_file_systems_needs_root) {
    EXPECT_EQ(statuses("cd /data && /usr/sbin/lockfs -w  -x\n"
                       "cd /data && /usr/sbin/lockfs -u  -x\n"
                       "cd /data && umount -- -x\n"
                       "cd /data && mount -t ext4 -- /dev/qz/dmp/p1 -x\n"
                       "cd /data && mount -t -x -- /dev/qz/dmp/p1 /data\n"),
              "1\n1\n32\n32\n32\n");
}

}  // namespace
