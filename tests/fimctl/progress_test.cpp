// What is shown while the work goes on: one rewritten line on a terminal, lines elsewhere.
#include "fimctl/progress.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include "fimctl/command_line.h"
#include "tests/fimctl/terminal.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using test::Ended;
using test::Terminal;
namespace progress = fimctl::progress;

int run_fimctl(const std::vector<std::string> &arguments) {
    std::vector<const char *> words = {"fimctl"};
    for (const std::string &argument : arguments) words.push_back(argument.c_str());
    return fimctl::run_command_line(static_cast<int>(words.size()), words.data());
}

size_t times(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class Progress : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        setenv("TERM", "xterm", 1);
        one_ = add_file_system("one", "000184500123", "00A1", "00B1");
    }
    std::function<int()> command(std::vector<std::string> words) {
        return [words = std::move(words)] { return run_fimctl(words); };
    }
    std::function<int()> freezing() { return command({"freeze", "--no-quiesce", one_}); }

    std::string one_;
};

TEST_F(Progress, on_a_terminal_is_one_line_that_is_rewritten_and_taken_away) {
    Terminal terminal(freezing());
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_NE(terminal.output().find("\r\033[Kfimctl: snapshot 1: freeze (object 1)"),
              std::string::npos)
        << terminal.output();
    EXPECT_NE(terminal.output().find("\r\033[Kfimctl: snapshot 1: freeze commit"),
              std::string::npos)
        << terminal.output();
    EXPECT_EQ(terminal.screen(), "1\n") << "only the result stays, on a clean line";
}

TEST_F(Progress, tells_devices_found_and_pairs_split_as_the_method_does) {
    const std::string two = add_file_system("two", "000184500123", "00A2", "00B2");
    script("ctl 1 log Total BCVs to resync at start : 2");
    script("ctl 1 sleep 1300");
    Terminal terminal(command({"freeze", "--no-quiesce", one_, two}));
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_NE(terminal.output().find("control code 4; 2 pairs to establish\r"), std::string::npos)
        << terminal.output();
    EXPECT_NE(terminal.output().find("freeze commit; 2 devices found\r"), std::string::npos)
        << terminal.output();
    EXPECT_NE(terminal.output().find("checkpoint (object 2); 2 devices found, 2 pairs split"),
              std::string::npos)
        << terminal.output();
}

TEST_F(Progress, of_a_split_that_the_array_refuses_calls_no_pair_split) {
    script("freeze_commit 1 log Adding <00A1, 00B1> to split list");
    script("freeze_commit 1 fail 7 BCV failed with code: 120 (refused)");
    script("freeze_commit 1 log Split end");
    script("freeze_commit 1 sleep 2300");
    script("freeze_commit 1 fail 13 Cannot split device p1: state: 2");
    Terminal terminal(freezing());
    EXPECT_EQ(terminal.finish(), 1);
    EXPECT_NE(terminal.output().find("freeze commit; 1 device found, 1 pair to split"),
              std::string::npos)
        << terminal.output();
    EXPECT_EQ(terminal.output().find("pair split"), std::string::npos) << terminal.output();
    EXPECT_NE(terminal.screen().find("BCV failed with code: 120 (refused); in the end: Cannot "
                                     "split device p1: state: 2 (error number 13)"),
              std::string::npos)
        << terminal.screen();
}

TEST_F(Progress, speaks_of_no_quiescing_where_nothing_is_quiesced) {
    const Ended ended = fimctl({"freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(ended.err.find("quiesce the file systems"), std::string::npos) << ended.err;
    EXPECT_NE(ended.err.find("freeze commit\n"), std::string::npos) << ended.err;
}

TEST_F(Progress, tells_since_when_a_step_is_waited_for) {
    script("freeze 1 sleep 3300");
    Terminal terminal(freezing());
    EXPECT_TRUE(terminal.wait_for("freeze (object 1); 2 s")) << terminal.output();
    EXPECT_TRUE(terminal.wait_for("freeze (object 1); 3 s")) << terminal.output();
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_EQ(terminal.screen(), "1\n");
}

TEST_F(Progress, is_cut_to_the_width_of_the_terminal) {
    Terminal terminal(freezing(), 24);
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_NE(terminal.output().find("\r\033[Kfimctl: snapshot 1: fre\r"), std::string::npos)
        << terminal.output();
}

TEST_F(Progress, is_silent_when_it_shall_be_quiet) {
    Terminal terminal(command({"-q", "freeze", "--no-quiesce", one_}));
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_EQ(terminal.output(), "1\n");
}

TEST_F(Progress, leaves_the_terminal_to_the_command_and_takes_it_back) {
    Terminal terminal(
        command({"run", "--no-quiesce", one_, "--", "sh", "-c", "echo out; echo err >&2"}));
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_NE(terminal.output().find("\r\033[Kout\nerr\n"), std::string::npos) << terminal.output();
    EXPECT_EQ(terminal.screen(), "out\nerr\nfimctl: snapshot 1: released\n");
}

TEST_F(Progress, of_a_release_leaves_its_outcome_to_be_read) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    {
        Terminal terminal(command({"release", "1"}));
        EXPECT_EQ(terminal.finish(), 0);
        EXPECT_EQ(terminal.screen(), "fimctl: snapshot 1: released\n");
    }
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    Terminal quiet(command({"-q", "release", "2"}));
    EXPECT_EQ(quiet.finish(), 0);
    EXPECT_EQ(quiet.output(), "");
}

TEST_F(Progress, gives_way_to_a_failure) {
    script("freeze 1 fail 3 no BCV here");
    Terminal terminal(freezing());
    EXPECT_EQ(terminal.finish(), 1);
    EXPECT_TRUE(terminal.screen().starts_with("fimctl: snapshot 1: step \"freeze\" failed: "))
        << terminal.screen();
    EXPECT_TRUE(terminal.screen().ends_with("then try again\n")) << terminal.screen();
}

TEST_F(Progress, shows_the_methods_lines_above_the_rewritten_one) {
    script("freeze 1 log Executing command: x");
    Terminal terminal(command({"-v", "freeze", "--no-quiesce", one_}));
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_NE(terminal.screen().find("fimctl: method: Executing command: x\n"), std::string::npos)
        << terminal.screen();
    EXPECT_TRUE(terminal.screen().ends_with("\n1\n")) << terminal.screen();
}

TEST_F(Progress, after_control_c_the_terminal_is_clean_and_the_end_is_told) {
    script("freeze 1 sleep 500");
    Terminal terminal(freezing());
    ASSERT_TRUE(terminal.wait_for("freeze (object 1)"));
    ASSERT_TRUE(wait_for_call("freeze"));
    terminal.type("\003");
    EXPECT_EQ(terminal.finish(), 130);
    const std::string screen = terminal.screen();
    EXPECT_EQ(screen,
              "fimctl: interrupted: ends where it can end cleanly, a release with its end; another "
              "signal kills this step\n"
              "fimctl: snapshot 1: step \"control code 4\" failed: interrupted\n"
              "fimctl: then: rolled back\n"
              "fimctl: next: nothing is left to clean; start it again when you like\n");
    EXPECT_EQ(story(), "freeze thaw thaw_commit");
}

TEST_F(Progress, control_c_during_the_command_of_a_run_releases_and_tells) {
    Terminal terminal(command({"run", "--no-quiesce", one_, "--", "sh", "-c",
                               "echo runs; while :; do sleep 0.05; done"}));
    ASSERT_TRUE(terminal.wait_for("runs\n"));
    terminal.type("\003");
    EXPECT_EQ(terminal.finish(), 130);
    EXPECT_NE(terminal.screen().find("fimctl: then: the snapshot is released\n"), std::string::npos)
        << terminal.screen();
    EXPECT_EQ(snapshot(1).state, fimctl::State::released);
}

TEST_F(Progress, on_a_terminal_that_cannot_rewrite_is_a_line_a_step) {
    setenv("TERM", "dumb", 1);
    Terminal terminal(freezing());
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_EQ(terminal.output().find('\033'), std::string::npos);
    EXPECT_NE(terminal.output().find("fimctl: snapshot 1: freeze commit\n"), std::string::npos);
}

TEST_F(Progress, without_a_terminal_is_a_line_a_step_and_nothing_else) {
    const Ended ended = fimctl({"freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err.find('\033'), std::string::npos);
    EXPECT_EQ(ended.err.find('\r'), std::string::npos);
    for (const char *step : {"begun", "load the method", "freeze (object 1)", "control code 4",
                             "read the pair states", "freeze commit", "checkpoint (object 1)"}) {
        EXPECT_EQ(times(ended.err, std::string("fimctl: snapshot 1: ") + step + "\n"), 1U) << step;
    }
}

TEST_F(Progress, an_owner_that_is_waited_for_is_told_once_not_with_every_try) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    test::write_file("/var/fake/owner", std::to_string(getpid()));
    const Ended ended = fimctl({"--lock-wait", "2", "mount", "1"});
    EXPECT_EQ(ended.status, 11) << ended.err;
    EXPECT_GE(processes_of("rebuild").size(), 2U) << "it was tried again";
    EXPECT_EQ(times(ended.err, "waiting: "), 1U) << ended.err;
    EXPECT_EQ(times(ended.err, "load the method\n"), 1U) << ended.err;
    EXPECT_EQ(times(ended.err, "rebuild (object 1)\n"), 1U) << ended.err;
}

// In this process: where there is no terminal, and time is shorter.
class Lines : public testing::Test {
  protected:
    void SetUp() override { testing::internal::CaptureStderr(); }
    std::string told() { return testing::internal::GetCapturedStderr(); }
};

TEST_F(Lines, a_step_that_takes_its_time_is_told_again_every_so_often) {
    progress::set_up(false, std::chrono::milliseconds(200));
    progress::step("freeze");
    progress::method_line("find_bcv_pair: BCV 01A1 information:");
    progress::tick();
    usleep(220000);
    progress::tick();
    progress::tick();
    EXPECT_EQ(told(), "fimctl: freeze\nfimctl: freeze; 1 device found\n");
}

TEST_F(Lines, nothing_at_all_is_told_when_it_shall_be_quiet) {
    progress::set_up(true, std::chrono::milliseconds(1));
    progress::step("freeze");
    progress::waiting("waiting");
    usleep(5000);
    progress::tick();
    EXPECT_EQ(told(), "");
}

TEST_F(Lines, a_try_that_gets_further_is_told_again) {
    progress::set_up(false);
    progress::step("load");
    progress::step("rebuild");
    progress::waiting("waiting: owned");
    progress::step("load");
    progress::step("rebuild");
    progress::waiting("waiting: owned");
    progress::step("load");
    progress::step("rebuild");
    progress::step("volumes");
    EXPECT_EQ(told(), "fimctl: load\nfimctl: rebuild\nfimctl: waiting: owned\nfimctl: volumes\n");
}

TEST(Shown, a_line_keeps_the_last_column_free_and_its_characters_whole) {
    EXPECT_EQ(progress::shown("abcdef", "", 0, 6), "abcde");
    EXPECT_EQ(progress::shown("abcdef", "", 0, 7), "abcdef");
    EXPECT_EQ(progress::shown("ab\xc3\xa4", "", 0, 4), "ab");
    EXPECT_EQ(progress::shown("a\nb\033[c", "", 0, 80), "a?b?[c");
    EXPECT_EQ(progress::shown("a", "1 pair split", 1, 80), "a; 1 pair split");
    EXPECT_EQ(progress::shown("a", "1 pair split", 2, 80), "a; 1 pair split; 2 s");
}

}  // namespace
