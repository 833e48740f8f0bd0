// What a snapshot holds is a device of the array, whatever path leads to it.
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <map>

#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::State;
using test::Ended;

// Disks with several paths: other nodes and other numbers, and one device of the array.
class Paths : public test::FimctlWorld {
  protected:
    void SetUp() override {
        if (!test::is_real_root()) GTEST_SKIP() << "needs root: makes device nodes";
        FimctlWorld::SetUp();
        for (const char *disk : {"p0", "p0again", "p9"}) {
            const std::string block = std::string("/dev/qz/dmp/") + disk;
            test::make_folders("/dev/qz/dmp");
            ASSERT_EQ(mknod(block.c_str(), S_IFBLK | 0600, makedev(240, ++number_)), 0);
        }
        add_object("/dev/qz/dmp/p0", 2, "000184500123", "00C1", "01C1");
        add_object("/dev/qz/dmp/p0again", 2, "000184500123", "00C1", "01C1");
        add_object("/dev/qz/dmp/p9", 2, "000184500123", "00C9", "01C9");
        lead({{"p0", "00C1"}, {"p0again", "00C1"}, {"p9", "00C9"}});
    }
    void lead(const std::map<std::string, std::string> &disks) {
        std::string text;
        for (const auto &[disk, device] : disks) {
            text += "000184500123 " + device + " /dev/qz/rdmp/" + disk + " datadg -\n";
        }
        test::write_file("/var/fake/devices", text);
    }
    size_t freezes() const { return processes_of("freeze").size(); }

    unsigned number_ = 0;
};

TEST_F(Paths, a_device_whose_mirror_serves_a_copy_is_not_frozen_again_by_another_path) {
    ASSERT_EQ(fimctl({"freeze", "/dev/qz/dmp/p0"}).status, 0);
    const Ended ended = fimctl({"freeze", "/dev/qz/dmp/p0again"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("/dev/qz/dmp/p0again lies on device 00C1 of array 000184500123, which "
                             "is held by snapshot 1 (frozen)"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("next: end that one first: fimctl release 1"), std::string::npos);
    EXPECT_EQ(freezes(), 1U);
    EXPECT_EQ(fimctl({"freeze", "/dev/qz/dmp/p9"}).status, 0);
}

TEST_F(Paths, a_killed_cut_is_not_undone_on_what_its_path_leads_to_by_now) {
    script("freeze_commit 1 die");
    ASSERT_EQ(fimctl({"freeze", "/dev/qz/dmp/p0"}).status, 3);
    ASSERT_EQ(snapshot(1).state, State::cutting);
    test::write_file("/var/fake/script", "");
    ASSERT_EQ(fimctl({"freeze", "/dev/qz/dmp/p9"}).status, 0);
    lead({{"p0", "00C9"}, {"p9", "00C9"}});
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find("/dev/qz/dmp/p0 leads to device 00C9 of array 000184500123 now"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("let the path lead to device 00C1"), std::string::npos) << ended.err;
    EXPECT_EQ(freezes(), 2U);
    EXPECT_EQ(snapshot(1).state, State::cutting);
    lead({{"p0", "00C1"}, {"p9", "00C9"}});
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(snapshot(1).state, State::released);
}

}  // namespace
