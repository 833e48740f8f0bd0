// The confirmation of a restore: a code that is bound to its plan.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "fimctl/paths.h"
#include "fimctl/restore/host_view.h"
#include "tests/fimctl/restore_fixture.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::State;
using test::Ended;
using test::Restore;
using Calls = std::vector<std::string>;

TEST_F(Restore, is_refused_where_nobody_can_be_asked) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    const int nothing = open("/dev/null", O_RDONLY);
    dup2(nothing, STDIN_FILENO);
    close(nothing);
    const Ended ended = restore({});
    EXPECT_EQ(ended.status, 2);
    EXPECT_TRUE(told(ended, "there is nobody to ask; nothing was done")) << ended.err;
    EXPECT_TRUE(told(ended, "--confirm CODE"));
    expect_frozen_and_untouched();
    EXPECT_TRUE(calls_of("rebuild").empty());
}

TEST_F(Restore, a_code_binds_a_script_to_the_plan_that_it_has_seen) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    const std::string code = code_of_plan();
    ASSERT_EQ(code.size(), 9U);
    EXPECT_EQ(restore({"--confirm", "0000-0000"}).status, 2);
    expect_frozen_and_untouched();
    EXPECT_EQ(code_of_plan(), code);
    EXPECT_EQ(restore({"--confirm", code}).status, 0);
    expect_restored();
}

TEST_F(Restore, the_code_is_of_what_is_done_not_of_when_the_plan_was_made) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    const std::string code = code_of_plan();
    sleep(1);
    EXPECT_EQ(code_of_plan(), code);
    unmount("/data-one");
    EXPECT_NE(code_of_plan(), code);
    EXPECT_EQ(restore({"--confirm", code}).status, 2);
    EXPECT_EQ(snapshot(1).state, State::frozen);
}

TEST_F(Restore, the_code_fits_no_other_snapshot_of_the_same_number) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    const std::string code = code_of_plan();
    // The catalogue was lost, and the same was frozen once more.
    unlink((state_ + "/" + fimctl::path::catalogue_file).c_str());
    ASSERT_EQ(enter(), 1);
    EXPECT_NE(code_of_plan(), code);
    EXPECT_EQ(restore({"--confirm", code}).status, 2);
    expect_frozen_and_untouched();
}

class OnATerminal : public Restore {
  protected:
    // The user types this line when asked, and meanwhile the world may change.
    Ended answer(const std::string &line, const std::string &directory_to_unmount = "") {
        test::make_folders("/dev/pts");
        EXPECT_EQ(mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666"), 0);
        mounted_.push_back("/dev/pts");
        const int terminal = open("/dev/pts/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_EQ(unlockpt(terminal), 0);
        const int other = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(other, 0);
        dup2(other, STDIN_FILENO);
        const pid_t pid = start({"--method", FAKE_RESTORING, "restore", "1"});
        EXPECT_TRUE(wait_until_told(pid, "Type the code to restore"));
        if (!directory_to_unmount.empty()) unmount(directory_to_unmount);
        EXPECT_EQ(write(terminal, line.data(), line.size()), static_cast<ssize_t>(line.size()));
        const Ended ended = finish(pid);
        close(other);
        close(terminal);
        close(STDIN_FILENO);
        return ended;
    }
};

TEST_F(OnATerminal, the_code_is_typed) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    std::string code = code_of_plan();
    code.erase(4, 1);
    const Ended ended = answer(" " + code + "\n");
    EXPECT_EQ(ended.status, 0) << ended.err;
    expect_restored();
}

TEST_F(OnATerminal, anything_else_leaves_everything_as_it_is) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    const Ended ended = answer("yes\n");
    EXPECT_EQ(ended.status, 2);
    EXPECT_TRUE(told(ended, "that is not the code; nothing was done")) << ended.err;
    expect_frozen_and_untouched();
}

TEST_F(OnATerminal, a_plan_that_has_gone_stale_is_refused_and_the_new_one_is_shown) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    const Ended ended = answer(code_of_plan() + "\n", "/data-one");
    EXPECT_EQ(ended.status, 2);
    EXPECT_TRUE(told(ended, "the plan has changed since it was confirmed")) << ended.err;
    EXPECT_TRUE(told(ended, "not mounted now; will be mounted")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_TRUE(calls_of("rebuild").empty());
}

}  // namespace
