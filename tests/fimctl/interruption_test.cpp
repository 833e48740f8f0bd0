// Signals and deaths: what was begun is ended or can be ended, and nobody forgets it.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::State;
using test::Ended;

class Interruption : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "00B1");
    }

    // Starts a command and sends it a signal when a call has begun.
    Ended signal_at(const std::string &call, int number, const std::vector<std::string> &words) {
        const pid_t pid = start(words);
        EXPECT_TRUE(wait_for_call(call));
        kill(pid, number);
        const Ended ended = finish(pid);
        for (const char *name : {"freeze", "volumes", "thaw"}) {
            for (const pid_t phase : processes_of(name)) EXPECT_TRUE(test::wait_until_gone(phase));
        }
        return ended;
    }

    std::string one_;
};

TEST_F(Interruption, sigint_during_a_freeze_rolls_back_and_ends_with_130) {
    script("freeze 1 sleep 300");
    const Ended ended = signal_at("freeze", SIGINT, {"freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 130) << ended.err;
    EXPECT_NE(ended.err.find("next: nothing is left to clean"), std::string::npos) << ended.err;
    EXPECT_EQ(story(), "freeze thaw thaw_commit");
    EXPECT_EQ(snapshot(1).state, State::failed);
}

TEST_F(Interruption, sigint_while_another_owner_is_waited_for_changes_nothing) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    for (const char *command : {"mount", "release"}) {
        test::write_file("/var/fake/owner", std::to_string(getpid()));
        const size_t tries = processes_of("rebuild").size();
        const pid_t pid = start({"--lock-wait", "60", command, "1"});
        for (int i = 0; i < 1000 && processes_of("rebuild").size() == tries; ++i) usleep(10000);
        usleep(100000);
        kill(pid, SIGINT);
        const Ended ended = finish(pid);
        EXPECT_EQ(ended.status, 130) << ended.err;
        EXPECT_NE(ended.err.find("interrupted while it waited: "), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("next: nothing is left to clean"), std::string::npos) << ended.err;
        EXPECT_EQ(snapshot(1).state, State::frozen) << command;
    }
    unlink("/var/fake/owner");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Interruption, sigint_during_a_mount_takes_it_down_again) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    const std::string two = add_file_system("two", "000184500123", "00A2", "00B2");
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_, two}).status, 0);
    script("volumes 1 sleep 300");
    const Ended ended = signal_at("volumes", SIGINT, {"mount", "2"});
    EXPECT_EQ(ended.status, 130) << ended.err;
    EXPECT_NE(ended.err.find("then: nothing is mounted; the snapshot stays frozen"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(2).state, State::frozen);
}

TEST_F(Interruption, sigint_during_a_release_lets_it_end) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    script("thaw 1 sleep 300");
    const Ended ended = signal_at("thaw", SIGINT, {"release", "1"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_NE(ended.err.find("snapshot 1: released"), std::string::npos) << ended.err;
    EXPECT_NE(ended.err.find("interrupted: ends where it can end cleanly, a release with its end"),
              std::string::npos)
        << "who hears nothing signals again, and that kills the step: " << ended.err;
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Interruption, sigterm_during_the_commit_lets_it_end_and_releases) {
    script("freeze_commit 1 sleep 300");
    const Ended ended =
        signal_at("freeze_commit", SIGTERM, {"run", "--no-quiesce", one_, "--", "true"});
    EXPECT_EQ(ended.status, 130) << ended.err;
    EXPECT_EQ(story(), "freeze ctl ckpt freeze_commit ckpt rebuild thaw thaw_commit");
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Interruption, a_signal_during_the_command_is_handed_on_and_the_snapshot_released) {
    const pid_t pid = start({"run", "--no-quiesce", one_, "--", "sh", "-c",
                             "trap 'echo told; exit 0' TERM; echo > /var/fake/runs; "
                             "while :; do sleep 0.05; done"});
    for (int i = 0; i < 500 && !test::exists("/var/fake/runs"); ++i) usleep(10000);
    kill(pid, SIGTERM);
    const Ended ended = finish(pid);
    EXPECT_EQ(ended.status, 130) << ended.err;
    EXPECT_EQ(ended.out, "told\n");
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Interruption, a_second_signal_ends_the_phase_at_once) {
    script("freeze 1 sleep 60000");
    const pid_t pid = start({"freeze", "--no-quiesce", one_});
    ASSERT_TRUE(wait_for_call("freeze"));
    kill(pid, SIGINT);
    usleep(200000);
    kill(pid, SIGINT);
    EXPECT_EQ(finish(pid).status, 130);
    EXPECT_EQ(snapshot(1).state, State::failed) << "nothing was split";
}

TEST_F(Interruption, a_command_killed_while_it_freezes_takes_its_phase_with_it) {
    script("freeze 1 sleep 60000");
    EXPECT_EQ(signal_at("freeze", SIGKILL, {"freeze", "--no-quiesce", one_}).status, -1);
    EXPECT_EQ(snapshot(1).state, State::begun);
    test::write_file("/var/fake/script", "");
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.err.find("nothing had been split"), std::string::npos) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::failed);
    EXPECT_EQ(story(), "freeze") << "nothing was split, so nothing is asked of the array";
}

TEST_F(Interruption, a_snapshot_killed_between_split_and_checkpoint_is_undone_by_another_freeze) {
    script("ckpt 2 sleep 60000");
    const pid_t pid = start({"freeze", "--no-quiesce", "--config", "backup_copy=1", one_});
    for (int i = 0; i < 500 && processes_of("ckpt").size() < 2; ++i) usleep(10000);
    kill(pid, SIGKILL);
    finish(pid);
    for (const pid_t phase : processes_of("freeze")) ASSERT_TRUE(test::wait_until_gone(phase));
    EXPECT_EQ(snapshot(1).state, State::cutting);
    EXPECT_EQ(array_state("00A1"), 5);
    test::write_file("/var/fake/script", "");
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(story(), "freeze ctl ckpt freeze_commit ckpt freeze ctl thaw thaw_commit");
    bool resynchronises = false;
    for (const std::string &call : calls()) {
        resynchronises = resynchronises || call.ends_with("config=backup_copy=1,sync_at_start=1");
    }
    EXPECT_TRUE(resynchronises);
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Interruption, a_copy_that_was_never_judged_is_not_offered_and_is_released_by_its_text) {
    // The array's library hangs when it is asked about the pairs after the commit.
    std::ofstream("/var/fake/hanging") << "SymDevShow -1\n";
    script("ckpt 2 copy /var/fake/hanging /var/fake/symapi");
    const pid_t pid = start({"freeze", "--no-quiesce", one_});
    ASSERT_TRUE(wait_for_call("hang"));
    kill(pid, SIGKILL);
    finish(pid);
    for (const pid_t reader : processes_of("hang")) ASSERT_TRUE(test::wait_until_gone(reader));
    test::write_file("/var/fake/symapi", "");
    EXPECT_EQ(fimctl({"mount", "1"}).status, 2);
    EXPECT_NE(fimctl({"list"}).out.find("cutting    none"), std::string::npos);
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_TRUE(story().ends_with("ckpt rebuild thaw thaw_commit")) << story();
    EXPECT_EQ(array_state("00A1"), 2);
}

TEST_F(Interruption, a_snapshot_killed_while_it_mounts_is_unmounted_by_its_release) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    script("ckpt 1 sleep 60000");
    EXPECT_EQ(signal_at("volumes", SIGKILL, {"mount", "1"}).status, -1);
    EXPECT_EQ(snapshot(1).state, State::mounting);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_FALSE(test::exists(copy_folder(1, 1) + "/copied"));
    EXPECT_FALSE(test::exists(copy_folder(1, 1)));
}

TEST_F(Interruption, a_mount_that_was_killed_is_begun_anew_by_the_next_one) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    script("ckpt 1 sleep 60000");
    EXPECT_EQ(signal_at("volumes", SIGKILL, {"mount", "1"}).status, -1);
    EXPECT_EQ(snapshot(1).state, State::mounting);
    test::write_file("/var/fake/script", "");
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(ended.out, copy_folder(1, 1) + "\n");
    EXPECT_TRUE(story().ends_with("rebuild volumes ckpt rebuild thaw rebuild volumes ckpt"))
        << story() << ": taken down, never committed, and brought up";
    EXPECT_EQ(snapshot(1).state, State::mounted);
    EXPECT_EQ(array_state("00A1"), 5);
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_FALSE(test::exists(copy_folder(1, 1)));
}

TEST_F(Interruption, what_a_killed_mount_has_left_and_cannot_be_taken_down_stops_the_next_one) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    script("ckpt 1 sleep 60000");
    EXPECT_EQ(signal_at("volumes", SIGKILL, {"mount", "1"}).status, -1);
    test::write_file("/var/fake/script", "");
    script("thaw 1 fail 7 busy");
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 3) << ended.err;
    EXPECT_NE(ended.err.find("busy"), std::string::npos) << ended.err;
    EXPECT_NE(ended.err.find("fimctl mount 1"), std::string::npos) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::mounting);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"mount", "1"}).status, 0);
}

TEST_F(Interruption, of_a_cut_that_was_killed_it_is_unknown_whether_it_was_quiesced) {
    script("freeze_commit 1 die");
    EXPECT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 3);
    const Ended shown = fimctl({"show", "1"});
    EXPECT_NE(shown.out.find("quiesced:"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("unknown"), std::string::npos) << shown.out;
    EXPECT_NE(fimctl({"show", "1", "--json"}).out.find("\"quiesced\": null"), std::string::npos);
}

TEST_F(Interruption, a_method_that_dies_in_the_freeze_leaves_nothing) {
    script("freeze 1 die");
    const Ended ended = fimctl({"freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("the process of this step died: killed by signal 9"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(1).state, State::failed);
}

TEST_F(Interruption, a_method_that_dies_in_the_commit_leaves_something_to_clean) {
    script("freeze_commit 1 die");
    EXPECT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 3);
    EXPECT_EQ(snapshot(1).state, State::cutting);
}

TEST_F(Interruption, a_method_that_dies_in_a_run_s_mount_is_released) {
    script("volumes 1 die");
    const Ended ended = fimctl({"run", "--no-quiesce", one_, "--", "true"});
    EXPECT_EQ(ended.status, 1) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Interruption, a_snapshot_that_another_fimctl_works_on_is_left_alone) {
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0);
    script("volumes 1 sleep 1000");
    const pid_t pid = start({"mount", "1"});
    ASSERT_TRUE(wait_for_call("volumes"));
    const Ended second = fimctl({"release", "1"});
    EXPECT_EQ(second.status, 11);
    EXPECT_NE(second.err.find("works on snapshot 1"), std::string::npos);
    EXPECT_EQ(finish(pid).status, 0);
}

}  // namespace
