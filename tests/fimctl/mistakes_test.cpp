// The mistakes that an operator makes: each answer says what to do.
#include <sys/mount.h>
#include <unistd.h>

#include "fimctl/paths.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using test::Ended;

class Mistakes : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "01A1");
    }
    void expect_told(const std::vector<std::string> &arguments, int status, const std::string &what,
                     const std::string &next) {
        const Ended ended = fimctl(arguments);
        EXPECT_EQ(ended.status, status);
        EXPECT_NE(ended.err.find(what), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("next: " + next), std::string::npos) << ended.err;
        EXPECT_EQ(ended.out, "");
    }
    void freeze() { ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0); }

    std::string one_;
};

TEST_F(Mistakes, a_wrong_path) {
    expect_told({"freeze", "/data-on"}, 2, "/data-on: No such file or directory",
                "correct the path or the option, then try again");
}

TEST_F(Mistakes, a_path_on_no_device) {
    expect_told({"freeze", "/proc/sys"}, 2, "/proc/sys lies on no device (proc)",
                "name a path on a disk of the array");
    test::make_folders("/memory");
    ASSERT_EQ(mount("tmpfs", "/memory", "tmpfs", 0, nullptr), 0);
    expect_told({"run", one_, "/memory", "--", "true"}, 2, "/memory lies on no device (tmpfs)",
                "name a path on a disk of the array");
    umount("/memory");
    EXPECT_TRUE(story().empty());
    EXPECT_EQ(fimctl({"list", "--all"}).out, "no snapshots\n");
}

TEST_F(Mistakes, a_path_twice) {
    expect_told({"freeze", "--no-quiesce", one_, one_ + "/"}, 2, "lie on one file system",
                "name it once, then try again");
    const auto volume = add_volume("datadg", "vol01", "000184500123", "00A2", "01A2");
    expect_told({"freeze", volume, volume}, 2, "are one device", "name it once, then try again");
    EXPECT_TRUE(story().empty());
}

TEST_F(Mistakes, a_second_mount) {
    freeze();
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    expect_told({"mount", "1"}, 2, "snapshot 1 cannot be mounted: it is mounted",
                "fimctl show 1 tells where its copy is mounted");
    EXPECT_EQ(snapshot(1).state, fimctl::State::mounted);
}

TEST_F(Mistakes, a_mount_after_its_folder_was_tidied_away) {
    freeze();
    ASSERT_EQ(rmdir(copy_folder(1, 1).c_str()), 0);
    EXPECT_EQ(fimctl({"mount", "1"}).status, 0);
    EXPECT_TRUE(test::exists(copy_folder(1, 1)));
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_FALSE(test::exists(copy_folder(1, 1)));
}

TEST_F(Mistakes, a_release_before_the_mount_is_none) {
    freeze();
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Mistakes, a_mount_or_a_second_release_after_the_release) {
    freeze();
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    expect_told({"mount", "1"}, 2, "it is released", "take another snapshot: fimctl freeze PATH");
    expect_told({"release", "1"}, 2, "snapshot 1 is over", "nothing is left to do for it");
}

TEST_F(Mistakes, a_mount_of_what_was_killed) {
    script("freeze_commit 1 die");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 3);
    expect_told({"mount", "1"}, 2, "it is cutting", "fimctl release 1");
}

TEST_F(Mistakes, a_number_that_is_none) {
    expect_told({"release", "7"}, 10, "there is no snapshot 7",
                "fimctl list --all shows the snapshots");
    expect_told({"export", "7"}, 10, "there is no snapshot 7",
                "fimctl list --all shows the snapshots");
}

TEST_F(Mistakes, a_release_while_the_backup_host_has_the_copy_mounted) {
    freeze();
    ASSERT_EQ(fimctl({"export", "1", "--output", "/away"}).status, 0);
    script("thaw_commit 1 fail 7 emc_tf_bcv_control_all: code: 401 (A host has mounted the BCV)");
    expect_told({"release", "1", "--abandoned"}, 3, "code: 401",
                "see that no host uses the mirrors, such as a backup host on which the copy is "
                "mounted, then: fimctl release 1 --abandoned");
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"release", "1", "--abandoned"}).status, 0);
}

TEST_F(Mistakes, a_word_for_a_number) {
    for (const std::string word : {"abc", "-1", "1x", "0x1", "/data"}) {
        for (const std::string command :
             {"show", "mount", "release", "restore", "export", "cleanup"}) {
            const Ended ended = fimctl({command, word});
            EXPECT_EQ(ended.status, 2) << command << " " << word;
            EXPECT_NE(ended.err.find("\"" + word + "\" is no snapshot's number; fimctl list shows"),
                      std::string::npos)
                << command << " " << ended.err;
        }
    }
}

TEST_F(Mistakes, a_file_for_the_state_folder) {
    test::write_file("/notes", "text");
    expect_told({"--state", "/notes", "list"}, 1, "/notes/catalogue.db: Not a directory",
                "see that the state folder can be written");
}

TEST_F(Mistakes, an_unplugged_array) {
    array_fails("SymInitV", 520);
    expect_told({"freeze", "--no-quiesce", one_}, 12, "the array does not answer",
                "see that the array library is installed and that the array answers");
    unlink(fimctl::path::array_library);
    expect_told({"freeze", "--no-quiesce", one_}, 12, "cannot load the array library",
                "see that the array library is installed");
}

TEST_F(Mistakes, an_array_that_is_unplugged_before_the_release_leaves_the_snapshot) {
    freeze();
    script("rebuild 1 fail 12 emc_tf__SymInit: Failed - SymVersion = 1280, Error = 1 (x).");
    expect_told({"release", "1"}, 12, "step \"rebuild\" failed",
                "see that the array library is installed and that the array answers");
    EXPECT_EQ(snapshot(1).state, fimctl::State::frozen);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

}  // namespace
