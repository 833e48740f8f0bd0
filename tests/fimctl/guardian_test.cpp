// The guardian, on real file systems: whatever happens, they are thawed.
#include "fimctl/guardian.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "fimctl/failure.h"
#include "fimctl/paths.h"
#include "fimctl/source.h"
#include "tests/fimctl/loop_file_system.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::Guardian;
using test::LoopFileSystem;

bool thawed_within(const LoopFileSystem &file_system, int milliseconds) {
    for (int i = 0; i < milliseconds / 10; ++i) {
        if (!file_system.is_frozen()) return true;
        usleep(10000);
    }
    return false;
}

class GuardianWithLoop : public testing::Test {
  protected:
    // Runs body in a process of its own, which it does not survive.
    template <typename Body>
    pid_t in_a_process(Body body) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            body([&ready] { EXPECT_EQ(write(ready[1], "r", 1), 1); });
            _exit(0);
        }
        close(ready[1]);
        char word = 0;
        EXPECT_EQ(read(ready[0], &word, 1), 1);
        close(ready[0]);
        return pid;
    }

    LoopFileSystem one_{"/one"};
};

TEST_F(GuardianWithLoop, freezes_every_file_system_and_thaws_them_when_told) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    const LoopFileSystem two("/two");
    Guardian guardian({"/one", "/two"}, 10);
    EXPECT_TRUE(one_.is_frozen());
    EXPECT_TRUE(two.is_frozen());
    const Guardian::End end = guardian.thaw();
    EXPECT_FALSE(one_.is_frozen());
    EXPECT_FALSE(two.is_frozen());
    EXPECT_FALSE(end.late);
    EXPECT_FALSE(end.disturbed);
    EXPECT_GT(end.frozen_ms, 0);
}

TEST_F(GuardianWithLoop, without_file_systems_it_does_nothing) {
    Guardian guardian({}, 10);
    EXPECT_EQ(guardian.pid(), -1);
    EXPECT_FALSE(guardian.thaw().late);
}

TEST_F(GuardianWithLoop, thaws_when_it_goes_out_of_scope) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    { const Guardian guardian({"/one"}, 10); }
    EXPECT_FALSE(one_.is_frozen());
}

TEST_F(GuardianWithLoop, thaws_at_the_deadline_and_says_so) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    Guardian guardian({"/one"}, 1);
    EXPECT_TRUE(one_.is_frozen());
    EXPECT_TRUE(thawed_within(one_, 20000));
    EXPECT_TRUE(guardian.thaw().late);
}

TEST_F(GuardianWithLoop, thaws_when_the_process_that_started_it_is_killed) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    const pid_t pid = in_a_process([](auto ready) {
        const Guardian guardian({"/one"}, 60);
        ready();
        pause();
    });
    EXPECT_TRUE(one_.is_frozen());
    kill(pid, SIGKILL);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_TRUE(thawed_within(one_, 20000));
}

TEST_F(GuardianWithLoop, signals_of_the_terminal_do_not_reach_it) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    Guardian guardian({"/one"}, 10);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) kill(guardian.pid(), number);
    EXPECT_NE(getpgid(guardian.pid()), getpgid(0));
    usleep(50000);
    EXPECT_TRUE(one_.is_frozen());
    EXPECT_FALSE(guardian.thaw().disturbed);
}

TEST_F(GuardianWithLoop, is_replaced_by_its_parent_when_it_is_killed_itself) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    Guardian guardian({"/one"}, 10);
    kill(guardian.pid(), SIGKILL);
    const Guardian::End end = guardian.thaw();
    EXPECT_TRUE(end.disturbed);
    EXPECT_FALSE(one_.is_frozen());
}

TEST_F(GuardianWithLoop, notices_that_somebody_else_has_thawed) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    Guardian guardian({"/one"}, 10);
    const int file = open("/one", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(ioctl(file, FITHAW, 0), 0);
    close(file);
    EXPECT_TRUE(guardian.thaw().disturbed);
}

TEST_F(GuardianWithLoop, one_that_cannot_be_frozen_lets_the_others_go) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    try {
        const Guardian guardian({"/one", "/proc"}, 10);
        FAIL() << "/proc was frozen";
    } catch (const fimctl::Failure &failure) {
        EXPECT_EQ(failure.step, fimctl::Step::quiesce);
        EXPECT_STREQ(failure.what(),
                     "cannot freeze the file system on /proc: Operation not supported");
    }
    EXPECT_FALSE(one_.is_frozen());
}

TEST_F(GuardianWithLoop, leaves_a_file_system_alone_that_somebody_else_has_frozen) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    const int file = open("/one", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(ioctl(file, FIFREEZE, 0), 0);
    EXPECT_THROW(Guardian({"/one"}, 10), fimctl::Failure);
    EXPECT_TRUE(one_.is_frozen());
    EXPECT_EQ(ioctl(file, FITHAW, 0), 0);
    close(file);
}

// Freezing a file system writes to its device: one whose data lie on a file system that is frozen
// by then waits for the thaw, like one with a writer that hangs.
TEST_F(GuardianWithLoop, a_freeze_that_blocks_is_given_up_at_the_deadline) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    const LoopFileSystem two("/two", "/one");
    NEEDS_LOOP_FILE_SYSTEM(two);
    try {
        const Guardian guardian({"/one", "/two"}, 0.3);
        FAIL() << "both were frozen";
    } catch (const fimctl::Failure &failure) {
        EXPECT_STREQ(failure.what(), "the deadline passed before every file system was frozen");
    }
    EXPECT_FALSE(one_.is_frozen());
    EXPECT_FALSE(two.is_frozen());
}

TEST_F(GuardianWithLoop,
       a_parent_that_is_killed_during_a_freeze_that_blocks_leaves_nothing_frozen) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    const LoopFileSystem two("/two", "/one");
    NEEDS_LOOP_FILE_SYSTEM(two);
    const pid_t pid = in_a_process([](auto ready) {
        ready();
        const Guardian guardian({"/one", "/two"}, 60);
        pause();
    });
    usleep(500000);
    EXPECT_TRUE(one_.is_frozen());
    kill(pid, SIGKILL);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_TRUE(thawed_within(one_, 20000));
    EXPECT_TRUE(thawed_within(two, 2000));
}

class QuiescedCycleWithLoop : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        add_object("/one", 3, "000184500123", "00A1", "00B1");
    }

    LoopFileSystem one_{"/one"};
};

TEST_F(QuiescedCycleWithLoop, the_file_system_is_frozen_during_the_commit_and_only_then) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("ctl 1 frozen? /one");
    script("freeze_commit 1 frozen? /one");
    script("ckpt 2 frozen? /one");
    const auto ended = fimctl({"freeze", "/one"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    std::string notes;
    for (const std::string &call : calls()) {
        if (call.compare(0, 5, "note ") == 0) notes += call.substr(5) + "; ";
    }
    EXPECT_EQ(notes, "not frozen /one; frozen /one; not frozen /one; ");
    EXPECT_TRUE(snapshot(1).quiesced);
    EXPECT_GT(snapshot(1).frozen_ms, 0);
}

TEST_F(QuiescedCycleWithLoop, the_file_system_of_a_device_is_frozen_too) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    add_object(one_.device(), 2, "000184500123", "00A2", "00B2");
    script("freeze_commit 1 frozen? /one");
    const auto ended = fimctl({"freeze", one_.device()});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_NE(story().find("freeze_commit note"), std::string::npos);
    EXPECT_EQ(calls()[calls().size() - 1].compare(0, 7, "SymExit"), 0);
}

TEST_F(QuiescedCycleWithLoop, a_failed_commit_thaws) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("freeze_commit 1 fail 13 cannot split");
    EXPECT_EQ(fimctl({"freeze", "/one"}).status, 1);
    EXPECT_FALSE(one_.is_frozen());
}

TEST_F(QuiescedCycleWithLoop, a_command_killed_in_the_commit_leaves_no_file_system_frozen) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("freeze_commit 1 sleep 60000");
    const pid_t pid = start({"freeze", "--freeze-deadline", "60", "/one"});
    ASSERT_TRUE(wait_for_call("freeze_commit"));
    EXPECT_TRUE(one_.is_frozen());
    kill(pid, SIGKILL);
    finish(pid);
    EXPECT_TRUE(thawed_within(one_, 20000));
    for (const pid_t phase : processes_of("freeze")) EXPECT_TRUE(test::wait_until_gone(phase));
}

TEST_F(QuiescedCycleWithLoop, a_phase_killed_in_the_commit_leaves_no_file_system_frozen) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("freeze_commit 1 die");
    EXPECT_EQ(fimctl({"freeze", "--freeze-deadline", "60", "/one"}).status, 3);
    EXPECT_TRUE(thawed_within(one_, 20000));
}

TEST_F(QuiescedCycleWithLoop, a_copy_that_is_cut_after_the_deadline_is_void) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("freeze_commit 1 sleep 600");
    const auto ended = fimctl({"freeze", "--freeze-deadline", "0.2", "/one"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(snapshot(1).void_reason,
              "the file systems were thawed at the deadline, before the cut had ended");
    EXPECT_NE(ended.err.find("next: allow the cut more time: --freeze-deadline SECONDS"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(1).state, fimctl::State::released);
    EXPECT_EQ(array_state("00A1"), 2);
}

TEST_F(QuiescedCycleWithLoop, a_copy_is_void_when_somebody_thawed_during_the_cut) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("freeze_commit 1 fithaw /one");
    EXPECT_EQ(fimctl({"freeze", "/one"}).status, 1);
    EXPECT_EQ(snapshot(1).void_reason, "a file system did not stay frozen during the cut");
}

TEST_F(QuiescedCycleWithLoop, a_file_system_that_cannot_be_frozen_is_rolled_back_before_the_cut) {
    const auto two = add_file_system("two", "000184500123", "00A2", "00B2");
    const auto ended = fimctl({"freeze", two});
    EXPECT_NE(ended.status, 0);
    EXPECT_EQ(story(), "freeze ctl ckpt thaw thaw_commit");
    EXPECT_NE(ended.err.find("cannot freeze the file system on " + two), std::string::npos)
        << ended.err;
}

TEST_F(QuiescedCycleWithLoop, nothing_that_is_written_may_lie_on_a_frozen_file_system) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    const auto refused = [this](const std::vector<std::string> &words, const std::string &what) {
        const auto ended = fimctl(words);
        EXPECT_EQ(ended.status, 2);
        EXPECT_NE(ended.err.find(what), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("lies on the file system on /one, which would be frozen"),
                  std::string::npos)
            << ended.err;
        EXPECT_TRUE(story().empty());
    };
    refused({"--state", "/one/state", "freeze", "/one"}, "the catalogue (/one/state)");
    refused({"--log", "/one/log", "freeze", "/one"}, "the log file (/one/log)");
    test::make_folders("/one/locks");
    test::make_folders("/usr/quill/tessera/online_util");
    ASSERT_EQ(symlink("/one/locks", fimctl::path::host_lock_folder), 0);
    refused({"freeze", "/one"}, "the method's lock folder");
    unlink(fimctl::path::host_lock_folder);
    ASSERT_EQ(symlink("/one/locks", fimctl::path::counter_folder), 0);
    refused({"freeze", "/one"}, "the method's counter folder");
    unlink(fimctl::path::counter_folder);
    setenv("TMPDIR", "/one", 1);
    refused({"freeze", "/one"}, "the folder of temporary files (/one)");
    unsetenv("TMPDIR");
}

TEST_F(QuiescedCycleWithLoop, a_stream_that_is_a_file_may_not_lie_on_a_frozen_file_system) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    const auto sources = fimctl::look_at_sources({"/one"});
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        const int kept = dup(stream);
        const int file = open("/one/stream", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        dup2(file, stream);
        close(file);
        std::string text = "accepted";
        try {
            fimctl::refuse_writing_to_frozen(sources, {});
        } catch (const fimctl::Failure &failure) {
            text = failure.what();
        }
        dup2(kept, stream);
        close(kept);
        EXPECT_EQ(text,
                  std::string(stream == STDOUT_FILENO ? "standard output" : "standard error") +
                      " lies on the file system on /one, which would be frozen while it is "
                      "written");
    }
}

TEST_F(QuiescedCycleWithLoop, a_raw_device_stands_for_its_block_device) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    struct stat block = {};
    ASSERT_EQ(stat(one_.device().c_str(), &block), 0);
    test::make_folders("/dev/qz/dmp");
    test::make_folders("/dev/qz/rdmp");
    ASSERT_EQ(mknod("/dev/qz/dmp/p0", S_IFBLK | 0600, block.st_rdev), 0);
    ASSERT_EQ(mknod("/dev/qz/rdmp/p0", S_IFCHR | 0600, makedev(1, 3)), 0);
    // Its numbers are those of the loop device, but it is another kind of device.
    ASSERT_EQ(mknod("/dev/qz/rdmp/p1", S_IFCHR | 0600, block.st_rdev), 0);
    const auto sources = fimctl::look_at_sources({"/dev/qz/rdmp/p0", "/dev/qz/rdmp/p1"});
    EXPECT_EQ(sources[0].device, block.st_rdev);
    EXPECT_EQ(sources[0].mount_dir, "/one");
    EXPECT_NE(sources[1].device, block.st_rdev);
    EXPECT_EQ(sources[1].mount_dir, "");
}

}  // namespace
