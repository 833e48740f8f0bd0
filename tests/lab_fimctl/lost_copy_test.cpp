// Others establish a mirror again that holds a copy, with the array's own tools.
#include <fstream>

#include "tests/support/world.h"

namespace {

using test::World;

class LostCopy : public World {
  protected:
    LostCopy() : World("small") {}

    void SetUp() override {
        World::SetUp();
        if (IsSkipped()) return;
        mount_source("ext4");
        host("echo original >/data/file; sync -f /data");
        EXPECT_EQ(fim("freeze /data"), "1\n");
        host("tfarray establish 000184500123 00A1 01A1 && tfarray clock advance 600 >/dev/null");
    }
    std::string fim(const std::string &arguments, int expected = 0) {
        int status = -1;
        const std::string output =
            host("LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so fimctl -q " + arguments, &status);
        EXPECT_EQ(status, expected) << "fimctl " << arguments << "\n" << output;
        return output;
    }
    static void expect_said(const std::string &output, const std::string &part) {
        EXPECT_NE(output.find(part), std::string::npos) << "not said: " << part << "\n" << output;
    }
    void expect_refused(const std::string &output) {
        expect_said(output, "the copy is lost: pair 00A1/01A1 is synchronised");
        expect_said(output, "next: fimctl release 1");
        expect_said(fim("list"), "void");
        expect_said(fim("orphans"), "void: the copy is lost");
    }
};

TEST_F(LostCopy, is_neither_mounted_nor_exported_and_can_be_released_needs_root) {
    expect_refused(fim("mount 1", 2));
    expect_said(fim("export 1", 2), "has no copy that another host could read");
    fim("release 1");
    EXPECT_EQ(fim("list"), "no snapshots\n");
    array("check");
}

TEST_F(LostCopy, is_not_handed_to_the_backup_host_needs_root) {
    expect_refused(fim("export 1", 2));
    fim("mount 1", 2);
}

}  // namespace
