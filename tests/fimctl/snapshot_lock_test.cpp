// The lock of the fimctl that works on a snapshot.
#include "fimctl/snapshot_lock.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "fimctl/failure.h"
#include "fimctl/paths.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::SnapshotLock;

class Lock : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "00B1");
    }
    void make_state(const std::string &folder) {
        fimctl::Catalogue catalogue(folder, true);
        catalogue.enter("");
    }

    std::string one_;
};

unsigned mode_of(const std::string &path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST_F(Lock, lies_in_the_runtime_folder_which_is_roots_alone_and_leaves_no_file) {
    umask(0);
    make_state(state_);
    const std::string folder = fimctl::lock_folder_of(state_);
    {
        const SnapshotLock lock(state_, 1);
        EXPECT_EQ(mode_of("/run/fimctl"), 0700U);
        EXPECT_EQ(mode_of(folder), 0700U);
        EXPECT_EQ(mode_of(folder + "/1"), 0600U);
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder));
    EXPECT_FALSE(test::exists("/var/lib/fimctl/locks"));
}

TEST_F(Lock, is_refused_while_another_one_holds_it) {
    make_state(state_);
    const SnapshotLock lock(state_, 1);
    try {
        const SnapshotLock second(state_, 1);
        FAIL() << "two locks";
    } catch (const fimctl::Failure &failure) {
        EXPECT_EQ(failure.code, fimctl::ExitCode::owned);
    }
    const SnapshotLock other(state_, 2);
}

TEST_F(Lock, two_state_folders_are_kept_apart_and_two_names_of_one_are_not) {
    make_state(state_);
    make_state("/var/lib/second");
    ASSERT_EQ(symlink("/var/lib/fimctl", "/var/lib/alias"), 0);
    const SnapshotLock lock(state_, 1);
    const SnapshotLock second("/var/lib/second", 1);
    EXPECT_THROW(SnapshotLock("/var/lib/alias", 1), fimctl::Failure);
}

TEST_F(Lock, a_file_that_its_holder_has_removed_is_not_the_lock) {
    make_state(state_);
    const std::string name = fimctl::lock_folder_of(state_) + "/1";
    // Everybody takes and gives; nobody may ever be in it together.
    const std::string inside = "/var/fake/inside";
    for (int i = 0; i < 4; ++i) {
        if (fork() != 0) continue;
        int trouble = 0;
        for (int turn = 0; turn < 300; ++turn) {
            try {
                const SnapshotLock lock(state_, 1);
                if (mkdir(inside.c_str(), 0700) != 0) trouble = 1;
                usleep(50);
                if (rmdir(inside.c_str()) != 0) trouble = 1;
            } catch (const fimctl::Failure &) {
                usleep(20);
            }
        }
        _exit(trouble);
    }
    for (int i = 0; i < 4; ++i) {
        int status = 0;
        wait(&status);
        EXPECT_EQ(status, 0);
    }
    EXPECT_FALSE(test::exists(name));
}

TEST_F(Lock, a_runtime_folder_of_somebody_else_is_refused) {
    if (!test::is_real_root()) GTEST_SKIP() << "needs root to give a folder away";
    make_state(state_);
    std::filesystem::remove_all("/run/fimctl");
    test::make_folders("/run/fimctl");
    ASSERT_EQ(chown("/run/fimctl", 12345, 0), 0);
    EXPECT_THROW(SnapshotLock(state_, 1), fimctl::Failure);
}

TEST_F(Lock, outlives_the_command_while_one_of_its_phases_lives) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    script("volumes 1 sleep 1000");
    const pid_t pid = start({"mount", "1"});
    ASSERT_TRUE(wait_for_call("volumes"));
    EXPECT_THROW(SnapshotLock(state_, 1), fimctl::Failure);
    EXPECT_EQ(finish(pid).status, 0);
    const SnapshotLock lock(state_, 1);
}

}  // namespace
