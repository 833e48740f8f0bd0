// File systems without room for the method's temporary files.
#include <algorithm>

#include "tests/support/world.h"

namespace test {
namespace {

constexpr char no_lock[] = "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p0";

class FullDiskInTheLab : public World {
  protected:
    // A file system in memory on a folder: one that can hold no file, or files without content.
    void mount_without_room_for_files(const std::string &folder) {
        host("mkdir -p " + folder + " && mount -t tmpfs -o size=64k,nr_inodes=1 small " + folder);
    }
    void mount_without_room_for_content(const std::string &folder) {
        host("mkdir -p " + folder + " && mount -t tmpfs -o size=4k small " + folder +
             " && head -c 4096 /dev/zero >" + folder + "/fill");
    }
    void expect_freeze_fails(const std::string &folder, int status, const Words &environment) {
        const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"}, 2, environment);
        expect_failure(failed.at("freeze"), 3, no_lock);
        EXPECT_TRUE(failed.at("freeze").handle);
        EXPECT_TRUE(failed.at("freeze").logged_part(
            "do_cmd: Command failed with status=" + std::to_string(status) +
            ": /usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o - </dev/null >" + folder +
            "/QfMS"))
            << testing::PrintToString(failed.at("freeze").log);
        expect_success(failed.at("thaw"));
        expect_success(failed.at("thaw_commit"));
    }
    // A committed snapshot whose text is in /exchange/text.
    void take_snapshot() {
        const Phase good = phase(
            {"freeze", "-", "/data", "/copy", "ctl", "4", "commit", "ckpt", "/exchange/text"});
        for (const Call &call : good.calls) expect_success(call);
        EXPECT_EQ(pair_state(), 5);
    }
    void expect_rebuild_succeeds() {
        const Phase good = phase({"rebuild", "/exchange/text", "volumes", "run", "cat /copy/file",
                                  "thaw", "thaw_commit"});
        EXPECT_EQ(good.calls.size(), 4U);
        for (const Call &call : good.calls) expect_success(call);
        EXPECT_EQ(counter_files(), "");
        EXPECT_EQ(host("ls -A /tmp"), "");
    }
};

TEST_F(FullDiskInTheLab, without_room_for_a_capture_file_runs_no_command_needs_root) {
    mount_source();
    const std::string before = picture();
    mount_without_room_for_files("/tmp");
    expect_freeze_fails("/tmp", 2, {});
    EXPECT_EQ(host("ls -A /tmp"), "");
    host("umount /tmp");
    EXPECT_EQ(picture(), before);
    expect_a_snapshot_succeeds();
}

TEST_F(FullDiskInTheLab, without_room_for_the_output_of_a_command_gives_no_lock_needs_root) {
    mount_source();
    const std::string before = picture();
    mount_without_room_for_content("/small");
    expect_freeze_fails("/small", 1, {"TMPDIR=/small"});
    EXPECT_EQ(host("ls -A /small"), "fill\n");
    host("umount /small");
    EXPECT_EQ(picture(), before);
    expect_a_snapshot_succeeds();
}

TEST_F(FullDiskInTheLab, without_room_for_a_transfer_file_rebuilds_nothing_needs_root) {
    mount_source();
    take_snapshot();
    const std::string before = picture();
    mount_without_room_for_files("/tmp");
    const Phase failed = phase({"rebuild", "/exchange/text"});
    const Call &rebuild = failed.at("rebuild");
    const std::string begin = "TimeFinder_rebuild: Cannot open file /tmp/EMCTX";
    EXPECT_EQ(rebuild.errmsg.substr(0, begin.size()), begin);
    EXPECT_EQ(rebuild.errmsg.substr(std::min(rebuild.errmsg.size(), begin.size() + 6)),
              ": No space left on device");
    expect_failure(rebuild, 13, rebuild.errmsg);
    EXPECT_TRUE(rebuild.handle);
    EXPECT_EQ(pair_state(), 5);
    host("umount /tmp");
    EXPECT_EQ(picture(), before);
    expect_rebuild_succeeds();
}

TEST_F(FullDiskInTheLab, without_room_for_the_clone_information_rebuilds_nothing_needs_root) {
    mount_source();
    take_snapshot();
    // The lines of a clone block, as a carrier puts them into the text.
    host(
        "cd /exchange && { echo HDEF-CLONE_INFO_FILE=START; head -c 100000 /dev/zero | tr '\\0' x;"
        " echo; echo HDEF-CLONE_INFO_FILE=END; cat text; } >long");
    const std::string before = picture();
    mount_without_room_for_content("/small");
    const Phase failed = phase({"rebuild", "/exchange/long", "rollback"}, 2, {"TMPDIR=/small"});
    expect_failure(failed.at("rebuild"), 1,
                   "TimeFinder_rebuild: Memory allocation failure at line 2315");
    EXPECT_TRUE(failed.at("rebuild").handle);
    EXPECT_EQ(pair_state(), 5);
    EXPECT_EQ(host("ls -A /small"), "fill\n");
    host("umount /small");
    EXPECT_EQ(picture(), before);
    expect_rebuild_succeeds();
}

TEST_F(FullDiskInTheLab, is_no_reason_for_a_rollback_to_touch_the_copy_needs_root) {
    mount_source();
    take_snapshot();
    const std::string before = picture();
    mount_without_room_for_files("/tmp");
    const Phase up = phase({"rebuild", "/exchange/text", "rollback"});
    EXPECT_EQ(up.at("thaw").status, 11);
    EXPECT_EQ(up.at("thaw").number, 13);
    EXPECT_EQ(up.at("thaw").errmsg, "TimeFinder_thaw: Unknown snapshot source type: 0");
    expect_success(up.at("thaw_commit"));
    EXPECT_EQ(pair_state(), 5);
    host("umount /tmp");
    EXPECT_EQ(picture(), before);
    expect_rebuild_succeeds();
}

}  // namespace
}  // namespace test
