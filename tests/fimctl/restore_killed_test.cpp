// A restore that was not ended: its release, and what goes on after it was killed.
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

struct Released : Restore {
    Ended release(const std::vector<std::string> &more = {}) {
        std::vector<std::string> words = {"--method", FAKE_RESTORING, "release", "1"};
        words.insert(words.end(), more.begin(), more.end());
        return fimctl(words);
    }
    void kill_at(const std::string &point) {
        script(point + " 1 kill-command");
        EXPECT_EQ(restore().status, -1);
        EXPECT_EQ(snapshot(1).state, State::restoring);
        expect_the_phase_is_gone();
        test::write_file("/var/fake/script", "");
    }
    static void array_is_at(long state) {
        auto pairs = fake::read_array();
        for (auto &pair : pairs) pair.state = state;
        fake::write_array(pairs);
    }
};

TEST_F(Released, before_anything_was_overwritten_everything_is_put_back_first) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    kill_at("deported");
    EXPECT_FALSE(is_mounted("/data-one"));
    const Ended ended = release();
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::released);
    expect_all_is_there();
    EXPECT_EQ(array_state("00A1"), 2);
}

TEST_F(Released, never_copies_restored_primaries_over_the_mirrors_without_saying_so) {
    NEEDS_VOLUME("onedg", "one", "00A1", "000184500123");
    NEEDS_VOLUME("twodg", "two", "00A2", "000184500999");
    enter();
    script("control 1 state 00A1 8");
    script("control 1 refuse 000184500999");
    EXPECT_EQ(restore().status, 3);
    test::write_file("/var/fake/script", "");
    const Ended ended = release();
    EXPECT_EQ(ended.status, 2);
    EXPECT_TRUE(told(ended, "pair 00A1/0BA1 of array 000184500123 is restored")) << ended.err;
    EXPECT_TRUE(told(ended,
                     "next: go on with the restore: fimctl restore 1; or give the copy up: "
                     "fimctl release 1 --abandoned"));
    EXPECT_EQ(snapshot(1).state, State::restoring);
    EXPECT_EQ(array_state("00A1"), 8);
    EXPECT_EQ(array_state("00A2"), 5);
    const Ended second = release({"--abandoned"});
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(snapshot(1).state, State::released);
    EXPECT_EQ(array_state("00A2"), 2);
    expect_all_is_there();
}

TEST_F(Released, a_copy_that_its_broken_off_restore_has_lost_can_be_given_up) {
    NEEDS_VOLUME("onedg", "one", "00A1", "000184500123");
    NEEDS_VOLUME("twodg", "two", "00A2", "000184500999");
    enter();
    script("control 1 state 00A1 8");
    script("control 1 state 00A2 2");
    script("control 1 refuse 000184500999");
    EXPECT_EQ(restore().status, 3);
    ASSERT_NE(snapshot(1).void_reason, "");
    test::write_file("/var/fake/script", "");
    const Ended ended = release();
    EXPECT_EQ(ended.status, 2);
    EXPECT_TRUE(told(ended, "next: give the copy up: fimctl release 1 --abandoned")) << ended.err;
    EXPECT_EQ(array_state("00A1"), 8);
    const Ended orphans = fimctl({"orphans"});
    EXPECT_NE(orphans.out.find("-> fimctl release 1 --abandoned"), std::string::npos)
        << orphans.out;
    const Ended second = release({"--abandoned"});
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(snapshot(1).state, State::released);
    expect_all_is_there();
}

TEST_F(Released, interrupted_while_the_array_still_restores_it_says_that_something_is_left) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    kill_at("control");
    auto pairs = fake::read_array();
    for (auto &pair : pairs) pair.state = 7;
    fake::write_array(pairs);
    const pid_t pid = start({"--method", FAKE_RESTORING, "restore", "1", "--yes"});
    usleep(700000);
    kill(pid, SIGINT);
    const Ended ended = finish(pid);
    EXPECT_EQ(ended.status, 3) << ended.err;
    EXPECT_TRUE(told(ended, "interrupted while the array was still restoring")) << ended.err;
    EXPECT_TRUE(told(ended, "next: go on with it: fimctl restore 1")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::restoring);
    for (auto &pair : pairs) pair.state = 8;
    fake::write_array(pairs);
    EXPECT_EQ(restore().status, 0);
    expect_restored();
}

TEST_F(Released,
       abandoned_while_the_array_still_restores_it_waits_and_tells_what_the_originals_hold) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    kill_at("control");
    array_is_at(7);
    const pid_t pid = start({"--method", FAKE_RESTORING, "release", "1", "--abandoned"});
    ASSERT_TRUE(wait_until_told(pid, "waiting: the array is still restoring"));
    EXPECT_FALSE(is_imported("datadg")) << "nobody may write below the array's work";
    EXPECT_FALSE(is_mounted("/data-one"));
    array_is_at(8);
    const Ended ended = finish(pid);
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(told(ended, "the originals hold what the copy held: every pair is restored"))
        << ended.err;
    EXPECT_EQ(snapshot(1).state, State::released);
    expect_all_is_there();
}

TEST_F(Released, abandoned_with_one_pair_restored_it_says_that_the_originals_are_a_mixture) {
    NEEDS_VOLUME("onedg", "one", "00A1", "000184500123");
    NEEDS_VOLUME("twodg", "two", "00A2", "000184500999");
    enter();
    script("control 1 state 00A1 8");
    script("control 1 refuse 000184500999");
    EXPECT_EQ(restore().status, 3);
    test::write_file("/var/fake/script", "");
    const Ended ended = release({"--abandoned"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(told(ended,
                     "the originals hold a mixture, since not every pair is restored: pair "
                     "00A2/0BA2 of array 000184500999 is split"))
        << ended.err;
}

TEST_F(Released, abandoned_and_interrupted_while_the_array_still_restores_it_puts_nothing_back) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    kill_at("control");
    array_is_at(7);
    const pid_t pid = start({"--method", FAKE_RESTORING, "release", "1", "--abandoned"});
    ASSERT_TRUE(wait_until_told(pid, "waiting: the array is still restoring"));
    kill(pid, SIGINT);
    const Ended ended = finish(pid);
    EXPECT_EQ(ended.status, 3) << ended.err;
    EXPECT_TRUE(told(ended, "interrupted while the array was still restoring")) << ended.err;
    EXPECT_TRUE(told(ended, "next: fimctl release 1 --abandoned")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::restoring);
    EXPECT_FALSE(is_mounted("/data-one"));
    array_is_at(8);
    EXPECT_EQ(release({"--abandoned"}).status, 0);
    expect_all_is_there();
}

TEST_F(Released, its_plan_calls_done_only_what_is_and_unmounts_only_what_is_mounted) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    kill_at("control");
    array_is_at(7);
    const Ended running = restore({"--plan-only"});
    EXPECT_EQ(running.status, 0) << running.err;
    EXPECT_NE(running.out.find(": being restored by the array\n"), std::string::npos)
        << running.out;
    EXPECT_EQ(running.out.find("done already"), std::string::npos) << running.out;
    EXPECT_NE(running.out.find("not mounted now; will be mounted"), std::string::npos)
        << running.out;
    EXPECT_EQ(running.out.find("unmounted, and"), std::string::npos) << running.out;
    const std::string json = restore({"--plan-only", "--json"}).out;
    EXPECT_NE(json.find("\"done\": false"), std::string::npos) << json;
    const std::string code = code_of_plan();
    array_is_at(8);
    EXPECT_NE(restore({"--plan-only"}).out.find(": done already\n"), std::string::npos);
    EXPECT_NE(restore({"--plan-only", "--json"}).out.find("\"done\": true"), std::string::npos);
    EXPECT_EQ(code_of_plan(), code) << "what goes on meanwhile makes no other plan";
}

TEST_F(Released, a_further_try_that_fails_at_once_says_that_something_is_left) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    kill_at("deported");
    script("rebuild 1 fail 7 no_memory");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 3) << ended.err;
    EXPECT_TRUE(told(ended, "the restore that was begun is not ended")) << ended.err;
    EXPECT_TRUE(told(ended, "next: fimctl restore 1")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::restoring);
}

TEST_F(Released, what_cannot_be_put_back_keeps_the_snapshot) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    kill_at("deported");
    test::write_file("/var/fake/no-import", "");
    const Ended ended = release();
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(told(ended, "import of disk group datadg")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::restoring);
    EXPECT_EQ(array_state("00A1"), 5);
}

// Killed with everything that belongs to it.

struct Killed : Restore, testing::WithParamInterface<const char *> {};

TEST_P(Killed, at_any_point_it_is_gone_on_with) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    NEEDS_VOLUME("twodg", "three", "00A3");
    enter();
    script(std::string(GetParam()) + " 1 kill-command");
    EXPECT_EQ(restore().status, -1);
    const bool begun = std::string(GetParam()) != "rebuild";
    EXPECT_EQ(snapshot(1).state, begun ? State::restoring : State::frozen);
    expect_the_phase_is_gone();
    test::write_file("/var/fake/script", "");
    const Ended plan = restore({"--plan-only"});
    EXPECT_EQ(plan.status, 0) << plan.err;
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 0) << ended.err;
    expect_restored();
}

INSTANTIATE_TEST_SUITE_P(Points, Killed,
                         testing::Values("rebuild", "thaw", "thaw_commit", "unmounted", "deported",
                                         "control", "controlled", "imported", "mounted"),
                         [](const auto &one) { return std::string(one.param); });

}  // namespace
