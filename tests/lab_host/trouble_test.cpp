// What goes wrong says so with the given status, number and message, and the world is as it was.
#include <gtest/gtest.h>

#include <string>

#include "tests/lab_host/world_script.h"

namespace {

// A piece of a script; each piece begins where the one before has ended.
struct Story {
    std::string prepare;     // makes what is there before
    std::string trouble;     // what is done to the world, not part of it
    std::string command;     // ends with the status that counts
    std::string undo = ":";  // takes the trouble back
};

struct Trouble : test::WorldScript {
    // Plays the story on a mounted ext4 whose mirror follows it, and compares the world before and
    // after it: pairs, mounts, locks, temporary files, content, catalogue; and that the file system
    // takes writes. Answers what was said.
    std::string fails(int status, const Story &story) {
        const auto outcome = in_world("demo", R"(
world() {
    tfarray clock advance 100 >/dev/null
    tfarray show | tail -n +3 | sed 's/ *[0-9]* tracks$//; s/ *never$//'
    on cat /etc/mtab
    on ls -A /tmp /usr/quill/tessera/online_util/db_cntl
    on cat /data/file
    on timeout 5 touch /data/file || echo "the file system is stopped"
    on fimctl list
    tfarray check
}
file_system ext4 /dev/qz/dmp/p0 /data
on sh -c 'echo content >/data/file'
synchronised 00A1 01A1
)" + story.prepare + "\nworld >/run/before\n" + story.trouble +
                                                  "\n" + story.command + "\nstatus=$?\n" +
                                                  story.undo + R"(
world >/run/after
diff /run/before /run/after || fail "the world is not as it was"
exit $status
)");
        EXPECT_EQ(outcome.status, status) << outcome.output;
        return outcome.output;
    }
    // The same for a call of the array that fails once, before the backup command runs.
    std::string fails_in(const std::string &function, int at) {
        const std::string said = fails(
            1, {"", "tfarray fault add " + function + " --at " + std::to_string(at) + " >/dev/null",
                "fim run /data -- touch /exchange/ran", "tfarray fault clear"});
        return said;
    }
};

#define EXPECT_SAID(text, part) EXPECT_NE((text).find(part), std::string::npos) << (text)

constexpr char told[] = " failed with code 114 (The array was told to fail this call) ";

TEST_F(Trouble, configuration_of_garbage_needs_root) {
    const std::string said = fails(1, {"", "", "fim run /data --config '=;,' -- true"});
    EXPECT_SAID(said,
                "step \"freeze\" failed: TimeFinder_freeze: Parse error 10 in config string: =;, "
                "(error number 7)");
}

TEST_F(Trouble, array_library_is_missing_needs_root) {
    const std::string said =
        fails(12, {"", "on mv /usr/symcli/shlib/libsymapi.so /usr/symcli/shlib/away",
                   "fim run /data -- true"});
    EXPECT_SAID(said, "/usr/symcli/shlib/libsymapi.so: cannot open shared object file");
}

TEST_F(Trouble, array_release_is_too_old_needs_root) {
    const std::string said = fails(12, {"", "tfarray version 0x04020099", "fim run /data -- true",
                                        "tfarray version 0x05000000"});
    EXPECT_SAID(said, "init_tflib: Could not initialize with SymAPI (error number 3)");
}

TEST_F(Trouble, oldest_accepted_release_works_needs_root) {
    EXPECT_EQ(fails(0, {"", "tfarray version 0x0402009a", "fim run /data -- echo done",
                        "tfarray version 0x05000000"}),
              "done\n");
}

TEST_F(Trouble, no_permission_needs_root) {
    const std::string said =
        fails(13, {"", "", "on setpriv --reuid 65534 --clear-groups fimctl -q run /data -- true"});
    EXPECT_SAID(said, "only root can work on snapshots");
}

TEST_F(Trouble, disk_of_the_catalogue_is_full_needs_root) {
    const std::string said =
        fails(1, {"on sh -c 'mkdir -m 700 /full && mount -t tmpfs -o size=12k,mode=700 full /full'",
                  "", "fim --state /full run /data -- touch /exchange/ran; [ $? -eq 0 ]"});
    EXPECT_SAID(said, "step \"keep the catalogue\" failed");
}

TEST_F(Trouble, disk_of_the_counter_files_is_full_needs_root) {
    // The counter file is made, and stays empty: that is a file without an owner.
    const std::string folder = "/usr/quill/tessera/online_util/db_cntl";
    const std::string said =
        fails(1, {"on mount -t tmpfs -o size=4k full " + folder +
                      "; on sh -c 'head -c 4096 /dev/zero >" + folder + "/filled'",
                  "", "fim run /data -- true", "on sh -c 'rm " + folder + "/__*'"});
    EXPECT_SAID(said, "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p0 (error number 3)");
}

TEST_F(Trouble, device_without_a_mirror_needs_root) {
    const std::string said = fails(1, {R"(
tfarray device create 000184500123 00B1 --size 64M
tfarray mask 000184500123 00B1 client1 /dev/qz/dmp/p9 /dev/qz/rdmp/p9
file_system ext4 /dev/qz/dmp/p9 /single)",
                                       "", "fim run /single -- true"});
    EXPECT_SAID(said,
                "find_bcv_pair: Device /dev/qz/rdmp/p9 is not a member of a BCV pair "
                "(error number 10)");
}

TEST_F(Trouble, array_fails_while_a_device_is_read_anew_needs_root) {
    EXPECT_SAID(fails_in("SymPdevSync", 1),
                "find_bcv_pair: SymAPI call to SymPdevSync on device /dev/qz/rdmp/p0" +
                    std::string(told) + "(error number 3)");
}

TEST_F(Trouble, array_fails_while_a_device_is_shown_needs_root) {
    // The first is the host tool's own call.
    EXPECT_SAID(fails_in("SymPdevShow", 2),
                "find_bcv_pair: SymAPI call to SymPdevShow on device /dev/qz/rdmp/p0" +
                    std::string(told) + "(error number 8)");
}

TEST_F(Trouble, array_fails_before_the_split_needs_root) {
    EXPECT_SAID(fails_in("SymDevSync", 3),
                "step \"freeze commit\" failed: emc_tf_split_prepare: SymAPI call to SymDevSync on "
                "device 01A1" +
                    std::string(told) + "(error number 3)");
}

TEST_F(Trouble, array_refuses_the_split_needs_root) {
    EXPECT_SAID(fails_in("SymDevListBcvControl", 1),
                "step \"freeze commit\" failed: emc_tf_bcv_control_all: SymAPI call to "
                "SymDevListBcvControl to establish BCV failed with code: 114 (The array was told "
                "to fail this call); in the end: emc_tf_wait_for_split: Cannot split device "
                "/dev/qz/rdmp/p0: state: 2 (error number 13)");
}

TEST_F(Trouble, answer_of_a_split_that_was_done_is_lost_and_the_copy_is_good_needs_root) {
    EXPECT_EQ(fails(0, {"", "tfarray fault add SymDevListBcvControl --after >/dev/null",
                        "fim run /data -- cat {}/file", "tfarray fault clear"}),
              "content\n");
}

TEST_F(Trouble, array_that_is_gone_needs_root) {
    const auto outcome = in_world("demo", R"(
file_system ext4 /dev/qz/dmp/p0 /data
pkill -9 -x tfarrayd
fim run /data -- true
)");
    EXPECT_EQ(outcome.status, 12) << outcome.output;
}

}  // namespace
