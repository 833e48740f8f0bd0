// Copies that cannot be brought up. The copy stays split and locked by nobody, so that the same
// text can be tried again.
#include <regex>

#include "tests/support/world.h"

namespace test {
namespace {

class CopyInTheLab : public World {
  protected:
    void take_snapshot(const std::string &type) {
        mount_source(type);
        const Phase good = phase(
            {"freeze", "-", "/data", "/copy", "ctl", "4", "commit", "ckpt", "/exchange/text"});
        for (const Call &call : good.calls) expect_success(call);
        before_ = whole_picture();
    }
    // A picture without the process that holds the counter file: each phase is another one.
    std::string whole_picture() {
        return std::regex_replace(picture(), std::regex("\\n( [0-9a-f]{2}){4} 01 00"),
                                  "\n OWNER 01 00");
    }
    // What a framework does whose copy cannot be read: nothing but to end, and to try again later.
    Phase bring_up() { return phase({"rebuild", "/exchange/text", "volumes"}); }
    void expect_unchanged() {
        host("rm /tmp/EMCTX*");
        EXPECT_EQ(whole_picture(), before_);
        EXPECT_NE(before_.find("\n OWNER 01 00 00 00 01 00 00 00\n"), std::string::npos);
    }
    void expect_release_succeeds() {
        const Phase good = phase(
            {"rebuild", "/exchange/text", "volumes", "run", "test -s /copy/file", "rollback"});
        EXPECT_EQ(good.calls.size(), 4U);
        for (const Call &call : good.calls) expect_success(call);
        array("clock advance 60");
        EXPECT_EQ(pair_state(), 2);
        EXPECT_EQ(counter_files(), "");
        EXPECT_EQ(host("ls -A /tmp; grep ' /copy ' /proc/self/mounts || true"), "");
    }

    std::string before_;
};

TEST_F(CopyInTheLab, without_its_mount_point_is_checked_but_not_mounted_needs_root) {
    take_snapshot("ext4");
    host("rmdir /copy");
    const Phase failed = bring_up();
    expect_failure(
        failed.at("volumes"), 3,
        "TimeFinder_volumes: Q_mount() failed with status=1, exit_status=32(Broken pipe)");
    EXPECT_TRUE(failed.at("volumes").logged("    mount: /copy: mount point does not exist."));
    EXPECT_EQ(failed.at("volumes").volpath, "/dev/sdq");
    host("mkdir /copy");
    expect_unchanged();
    expect_release_succeeds();
}

TEST_F(CopyInTheLab, that_is_damaged_is_not_mounted_needs_root) {
    take_snapshot("ext4");
    host(
        "dd if=/dev/sdq of=/exchange/begin bs=1M count=1 status=none &&"
        " dd if=/dev/zero of=/dev/sdq bs=1M count=1 conv=fsync status=none");
    const Phase failed = bring_up();
    expect_failure(failed.at("volumes"), 3,
                   "TimeFinder_volumes: Q_fsck(/dev/sdq, ext4) failed with status=1, "
                   "exit_status=8(Exec format error)");
    EXPECT_TRUE(failed.at("volumes").logged_part("    fsck.ext4: Bad magic number in super-block"));
    EXPECT_EQ(failed.at("volumes").volpath, "/dev/sdq");
    host("dd if=/exchange/begin of=/dev/sdq bs=1M conv=fsync status=none");
    expect_unchanged();
    expect_release_succeeds();
}

TEST_F(CopyInTheLab, that_is_mounted_elsewhere_is_not_mounted_again_needs_root) {
    take_snapshot("xfs");
    host("mkdir /other && mount -o nouuid /dev/sdq /other");
    const Phase failed = bring_up();
    expect_failure(failed.at("volumes"), 3,
                   "TimeFinder_volumes: Q_fsck(/dev/sdq, xfs) failed with status=1, "
                   "exit_status=8(Exec format error)");
    EXPECT_TRUE(failed.at("volumes").logged_part("/dev/sdq is mounted"));
    host("umount /other");
    expect_unchanged();
    expect_release_succeeds();
}

TEST_F(CopyInTheLab, that_is_damaged_can_be_given_up_needs_root) {
    take_snapshot("ext4");
    host("dd if=/dev/zero of=/dev/sdq bs=1M count=1 conv=fsync status=none");
    const Phase given_up = phase({"rebuild", "/exchange/text", "volumes", "rollback"});
    EXPECT_EQ(given_up.at("volumes").status, 11);
    expect_success(given_up.at("thaw"));
    expect_success(given_up.at("thaw_commit"));
    array("clock advance 60");
    EXPECT_EQ(pair_state(), 2);
    EXPECT_EQ(counter_files(), "");
    EXPECT_EQ(host("ls -A /tmp"), "");
    expect_a_snapshot_succeeds();
}

}  // namespace
}  // namespace test
