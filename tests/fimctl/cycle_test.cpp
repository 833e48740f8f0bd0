// What the method expects of a framework: the order of its calls, in which process, with which
// text.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <set>

#include "tests/fimctl/fake_method/script.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::State;
using test::Ended;

class Cycle : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "00B1");
    }

    std::string second() { return add_file_system("two", "000184500123", "00A2", "00B2"); }
    Ended run(const std::vector<std::string> &command) {
        std::vector<std::string> words = {"run", "--no-quiesce", one_, "--"};
        words.insert(words.end(), command.begin(), command.end());
        return fimctl(words);
    }
    Ended freeze(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"freeze", "--no-quiesce", one_});
        return fimctl(more);
    }

    std::string one_;
};

TEST_F(Cycle, run_drives_the_whole_cycle_around_the_command) {
    const Ended ended = run({"cat", "{}/copied"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(ended.out, "copy of " + one_ + "\n");
    EXPECT_EQ(story(),
              "freeze ctl ckpt freeze_commit ckpt "
              "rebuild volumes ckpt "
              "rebuild thaw thaw_commit");
    EXPECT_EQ(snapshot(1).state, State::released);
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_FALSE(test::exists(copy_folder(1, 1)));
    EXPECT_FALSE(test::exists("/var/lib/fimctl/tmp/1"));
}

TEST_F(Cycle, every_phase_has_a_process_of_its_own_that_is_reaped_before_the_next_starts) {
    // The scripted method refuses a lock whose owner still exists, reaped or not.
    ASSERT_EQ(run({"true"}).status, 0);
    std::set<pid_t> processes;
    for (const char *call : {"freeze", "volumes", "thaw"}) {
        ASSERT_EQ(processes_of(call).size(), 1U);
        processes.insert(processes_of(call).front());
    }
    EXPECT_EQ(processes.size(), 3U);
    for (const pid_t pid : processes) EXPECT_TRUE(kill(pid, 0) != 0 && errno == ESRCH);
}

TEST_F(Cycle, control_code_4_stands_between_the_last_freeze_and_the_commit_and_never_later) {
    const Ended ended = fimctl({"freeze", "--no-quiesce", one_, second()});
    ASSERT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(story(), "freeze freeze ctl ckpt ckpt freeze_commit freeze_commit ckpt ckpt");
    const auto made = calls();
    EXPECT_EQ(std::count(made.begin(), made.end(), "ctl 4"), 1);
}

TEST_F(Cycle, a_labelled_bcv_that_is_split_is_established_before_the_commit) {
    const std::string split = add_file_system("split", "000184500123", "00A9", "00B9", 5);
    const Ended ended = fimctl({"freeze", "--no-quiesce", split});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(snapshot(1).objects[0].pairs[0].before, 2);
    EXPECT_EQ(snapshot(1).objects[0].pairs[0].after, 5);
}

TEST_F(Cycle, the_entry_points_are_prepared_before_the_first_freeze) {
    ASSERT_EQ(freeze().status, 0);
    const auto made = calls();
    std::vector<std::string> first;
    for (const std::string &call : made) {
        if (call.compare(0, 3, "Sym") != 0) first.push_back(call);
    }
    ASSERT_GE(first.size(), 5U);
    EXPECT_EQ(first[0], "init ");
    EXPECT_EQ(first[1], "query ");
    EXPECT_EQ(first[2], "set_locale ");
    EXPECT_EQ(first[3], "set_logf 0");
    EXPECT_EQ(first[4], "freeze " + one_ + " fifs=" + copy_folder(1, 1) + " flag=1 config=(null)");
}

TEST_F(Cycle, the_configuration_string_goes_to_every_freeze) {
    ASSERT_EQ(freeze({"--config", "sync_at_start=1,async_resync=1"}).status, 0);
    const auto made = calls();
    EXPECT_TRUE(std::any_of(made.begin(), made.end(), [](const std::string &call) {
        return call.ends_with("config=sync_at_start=1,async_resync=1");
    }));
}

TEST_F(Cycle, a_snapshot_is_entered_before_the_array_is_touched) {
    script("freeze 1 copy " + state_ + " /var/fake/at-freeze");
    script("freeze_commit 1 copy " + state_ + " /var/fake/at-commit");
    ASSERT_EQ(freeze().status, 0);
    const auto at_freeze = snapshot(1, "/var/fake/at-freeze");
    EXPECT_EQ(at_freeze.state, State::begun);
    ASSERT_EQ(at_freeze.objects.size(), 1U);
    EXPECT_EQ(at_freeze.objects[0].source, one_);
    const auto at_commit = snapshot(1, "/var/fake/at-commit");
    EXPECT_EQ(at_commit.state, State::cutting);
    EXPECT_EQ(at_commit.objects[0].pairs[0].before, 2);
}

TEST_F(Cycle, a_failed_freeze_that_returns_a_handle_is_rolled_back_on_that_handle) {
    script("freeze 2 fail-with-handle 10 find_bcv_pair: Device is not a member of a BCV pair");
    const std::string two = second();
    const Ended ended = fimctl({"freeze", "--no-quiesce", one_, two});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(story(), "freeze freeze thaw thaw thaw_commit thaw_commit");
    const auto made = calls();
    EXPECT_EQ(made.back(), "thaw_commit " + two);
    EXPECT_FALSE(test::exists("/var/fake/owner")) << "the lock is gone";
    EXPECT_NE(ended.err.find("step \"freeze\" failed: find_bcv_pair: Device is not a member of a "
                             "BCV pair (error number 10)"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("then: rolled back"), std::string::npos);
    EXPECT_NE(
        ended.err.find("next: fimctl plan, with the same paths and options, and fimctl doctor "
                       "tell what speaks against a freeze"),
        std::string::npos);
    EXPECT_EQ(snapshot(1).state, State::failed);
    EXPECT_FALSE(test::exists(copy_folder(1, 1)));
}

TEST_F(Cycle, a_failed_freeze_without_a_handle_rolls_back_the_objects_frozen_before) {
    script("freeze 2 fail 3 TimeFinder_freeze: Cannot map");
    const std::string two = second();
    EXPECT_EQ(fimctl({"freeze", "--no-quiesce", one_, two}).status, 1);
    EXPECT_EQ(story(), "freeze freeze thaw thaw_commit");
    EXPECT_EQ(calls().back(), "thaw_commit " + one_);
}

TEST_F(Cycle, a_freeze_that_fails_first_has_nothing_to_roll_back) {
    script("freeze 1 fail 7 TimeFinder_freeze: Parse error 3 in config string: x");
    EXPECT_EQ(freeze({"--config", "garbage"}).status, 1);
    EXPECT_EQ(story(), "freeze");
}

TEST_F(Cycle, a_failed_control_code_4_is_rolled_back_before_any_split) {
    script("ctl 1 fail 7 emc_tf_wait_for_establish: failed");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(story(), "freeze ctl thaw thaw_commit");
    EXPECT_NE(ended.err.find("step \"control code 4\" failed"), std::string::npos);
}

TEST_F(Cycle, a_failed_commit_is_rolled_back) {
    script("freeze_commit 1 fail 13 emc_tf_wait_for_split: Cannot split device");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(story(), "freeze ctl ckpt freeze_commit thaw thaw_commit");
    EXPECT_EQ(snapshot(1).state, State::failed);
}

TEST_F(Cycle, a_checkpoint_that_fails_after_the_split_is_rolled_back_and_the_pairs_established) {
    script("ckpt 2 fail 1 TimeFinder_ckpt: convert error");
    EXPECT_EQ(freeze().status, 1);
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_EQ(snapshot(1).state, State::failed);
}

TEST_F(Cycle, a_roll_back_that_fails_leaves_something_to_clean_and_says_what_to_do) {
    script("freeze_commit 1 fail 3 commit failed");
    script("thaw_commit 1 fail 3 thaw commit failed");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find("the roll-back failed: thaw commit failed"), std::string::npos);
    EXPECT_NE(ended.err.find("next: fimctl release 1"), std::string::npos);
    EXPECT_EQ(snapshot(1).state, State::cutting);
}

TEST_F(Cycle, a_text_that_cannot_be_kept_is_rolled_back_by_the_process_that_cut_the_copy) {
    // The catalogue breaks while the text of the second object is being made.
    script("ckpt 4 copy /var/fake/broken " + state_);
    test::make_folders("/var/fake/broken");
    test::write_file("/var/fake/broken/catalogue.db", std::string(8192, 'x'));
    const Ended ended = fimctl({"freeze", "--no-quiesce", one_, second()});
    EXPECT_NE(ended.status, 0);
    EXPECT_NE(ended.err.find("the catalogue: "), std::string::npos) << ended.err;
    EXPECT_EQ(story(),
              "freeze freeze ctl ckpt ckpt freeze_commit freeze_commit ckpt ckpt "
              "thaw thaw thaw_commit thaw_commit");
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_EQ(array_state("00A2"), 2);
}

TEST_F(Cycle, the_text_taken_after_volumes_is_the_one_to_thaw_with) {
    ASSERT_EQ(freeze().out, "1\n");
    const Ended mounted = fimctl({"mount", "1"});
    ASSERT_EQ(mounted.status, 0) << mounted.err;
    EXPECT_EQ(mounted.out, copy_folder(1, 1) + "\n");
    EXPECT_EQ(snapshot(1).state, State::mounted);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    const auto made = calls();
    EXPECT_NE(std::find(made.begin(), made.end(), "rebuild " + one_ + " is_mount=0"), made.end());
    EXPECT_NE(std::find(made.begin(), made.end(), "rebuild " + one_ + " is_mount=1"), made.end());
    EXPECT_FALSE(test::exists(copy_folder(1, 1)));
}

TEST_F(Cycle, a_snapshot_can_be_released_without_having_been_mounted) {
    ASSERT_EQ(freeze().status, 0);
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(array_state("00A1"), 2);
}

TEST_F(Cycle, only_the_primary_commits_the_thaw) {
    ASSERT_EQ(freeze().status, 0);
    {
        fimctl::Catalogue catalogue(state_, false);
        catalogue.set_text(1, 0, "HDEF-is_tgt=1\n" + snapshot(1).objects[0].text);
    }
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(story(), "freeze ctl ckpt freeze_commit ckpt rebuild thaw");
}

TEST_F(Cycle, a_failed_volumes_takes_the_copies_down_again_and_the_snapshot_stays_frozen) {
    script("volumes 2 fail 3 TimeFinder_volumes: Q_fsck failed");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_, second()}).status, 0);
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(story().ends_with("rebuild rebuild volumes ckpt volumes thaw thaw")) << story();
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_EQ(snapshot(1).objects[0].mounted_text, "");
    EXPECT_FALSE(test::exists(copy_folder(1, 1) + "/copied"));
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Cycle, a_run_whose_mount_fails_releases_the_snapshot) {
    script("volumes 1 fail 3 TimeFinder_volumes: Q_fsck failed");
    const Ended ended = run({"true"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("step \"volumes\" failed: TimeFinder_volumes: Q_fsck failed (error "
                             "number 3)"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Cycle, a_failed_thaw_commits_nothing_and_the_release_can_be_repeated) {
    script("thaw 1 fail 0 ");
    ASSERT_EQ(freeze().status, 0);
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find("end whatever uses the copy"), std::string::npos) << ended.err;
    EXPECT_TRUE(processes_of("thaw_commit").empty());
    EXPECT_EQ(array_state("00A1"), 5) << "nothing is established under a mounted copy";
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Cycle, a_thaw_that_fails_names_the_directory_that_is_in_use) {
    script("thaw 1 fail 0 ");
    ASSERT_EQ(freeze().status, 0);
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    const std::string copy = copy_folder(1, 1);
    ASSERT_EQ(mount("tmpfs", copy.c_str(), "tmpfs", 0, nullptr), 0);
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find("step \"thaw\" failed: " + copy +
                             " is still mounted, and no process is seen that uses it"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("next: end whatever uses the copy (fuser -vm " + copy +
                             "), then: fimctl release 1"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(umount(copy.c_str()), 0);
}

TEST_F(Cycle, a_failed_thaw_commit_of_a_run_leaves_something_to_clean) {
    script("thaw_commit 1 fail 3 establish failed");
    const Ended ended = run({"true"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find("mounted, then: fimctl release 1\n"), std::string::npos) << ended.err;
    EXPECT_NE(ended.err.find("then: true ended with status 0\n"), std::string::npos) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::releasing);
}

TEST_F(Cycle, a_failure_is_the_last_one_until_a_later_step_succeeds) {
    script("volumes 1 fail 3 TimeFinder_volumes: Q_fsck failed");
    script("thaw_commit 1 fail 3 establish failed");
    ASSERT_EQ(freeze().status, 0);
    EXPECT_EQ(fimctl({"mount", "1"}).status, 1);
    EXPECT_EQ(snapshot(1).note, "volumes: TimeFinder_volumes: Q_fsck failed");
    test::write_file("/var/fake/script", "thaw_commit 1 fail 3 establish failed\n");
    EXPECT_EQ(fimctl({"mount", "1"}).status, 0);
    EXPECT_EQ(snapshot(1).note, "");
    EXPECT_EQ(fimctl({"release", "1"}).status, 3);
    EXPECT_EQ(snapshot(1).note, "thaw commit: establish failed");
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(fimctl({"show", "1"}).out.find("last failure"), std::string::npos);
}

TEST_F(Cycle, a_run_that_failed_keeps_its_failure_when_its_release_succeeds) {
    script("volumes 1 fail 3 TimeFinder_volumes: Q_fsck failed");
    EXPECT_EQ(run({"true"}).status, 1);
    EXPECT_EQ(snapshot(1).state, State::released);
    EXPECT_EQ(snapshot(1).note, "volumes: TimeFinder_volumes: Q_fsck failed");
}

TEST_F(Cycle, a_freeze_that_meets_another_owner_says_who_and_ends_with_11) {
    test::write_file("/var/fake/owner", std::to_string(getpid()));
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 11);
    EXPECT_NE(ended.err.find("process " + std::to_string(getpid()) + " owns the array's mirrors"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(1).state, State::failed);
}

TEST_F(Cycle, a_release_waits_for_another_owner) {
    ASSERT_EQ(freeze().status, 0);
    test::write_file("/var/fake/owner", std::to_string(getpid()));
    const pid_t pid = start({"release", "1"});
    ASSERT_TRUE(wait_for_call("rebuild"));
    test::write_file("/var/fake/owner", "");
    EXPECT_EQ(finish(pid).status, 0);
}

TEST_F(Cycle, a_release_that_may_not_wait_ends_with_11_and_changes_nothing) {
    ASSERT_EQ(freeze().status, 0);
    test::write_file("/var/fake/owner", std::to_string(getpid()));
    EXPECT_EQ(fimctl({"--lock-wait", "0", "release", "1"}).status, 11);
    EXPECT_EQ(snapshot(1).state, State::frozen);
}

TEST_F(Cycle, an_undoing_that_meets_another_owner_ends_with_11_and_can_be_repeated) {
    script("freeze_commit 1 die");
    ASSERT_EQ(freeze().status, 3);
    test::write_file("/var/fake/script", "");
    test::write_file("/var/fake/owner", std::to_string(getpid()));
    EXPECT_EQ(fimctl({"release", "1"}).status, 11);
    EXPECT_EQ(snapshot(1).state, State::cutting);
    test::write_file("/var/fake/owner", "");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Cycle, a_command_that_fails_ends_the_run_with_1_after_the_release) {
    const Ended ended = run({"sh", "-c", "exit 7"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("sh ended with status 7"), std::string::npos);
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Cycle, a_command_that_cannot_be_found_costs_no_snapshot) {
    EXPECT_EQ(run({"no-such-program"}).status, 2);
    EXPECT_TRUE(story().empty());
}

TEST_F(Cycle, several_copies_stand_in_the_place_of_one_argument) {
    const Ended ended =
        fimctl({"run", "--no-quiesce", one_, second(), "--", "echo", "from", "{}", "to=x"});
    EXPECT_EQ(ended.out, "from " + copy_folder(1, 1) + " " + copy_folder(1, 2) + " to=x\n");
}

TEST_F(Cycle, a_path_below_the_mount_point_is_found_in_the_copy) {
    test::make_folders(one_ + "/projects/a");
    add_object(one_ + "/projects/a", 3, "000184500123", "00A5", "00B5");
    const Ended ended = fimctl({"run", "--no-quiesce", one_ + "/projects/a", "--", "echo", "{}"});
    EXPECT_EQ(ended.out, copy_folder(1, 1) + "/projects/a\n") << ended.err;
}

TEST_F(Cycle, an_object_whose_mirror_serves_a_copy_is_not_frozen_again) {
    ASSERT_EQ(freeze().status, 0);
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("is held by snapshot 1 (frozen)"), std::string::npos) << ended.err;
    EXPECT_NE(ended.err.find("next: end that one first: fimctl release 1"), std::string::npos);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(freeze().out, "2\n");
}

TEST_F(Cycle, of_two_commands_that_start_together_only_one_gets_an_object) {
    // The look at what is held and the entry are one step: the other one sees it entered.
    script("freeze * sleep 300");
    const std::vector<std::string> words = {"freeze", "--no-quiesce", one_};
    const std::vector<pid_t> both = {start(words), start(words)};
    int good = 0;
    for (const pid_t pid : both) {
        const Ended ended = finish(pid);
        if (ended.status == 0) {
            ++good;
            EXPECT_EQ(ended.out, "1\n");
            continue;
        }
        EXPECT_EQ(ended.status, 2);
        EXPECT_NE(ended.err.find("is held by snapshot 1 (begun)"), std::string::npos) << ended.err;
    }
    EXPECT_EQ(good, 1);
    EXPECT_EQ(processes_of("freeze").size(), 1U);
    EXPECT_EQ(snapshot(2).id, 0) << "the second one was never entered";
}

TEST_F(Cycle, a_copys_directory_bears_the_host_and_is_for_root_alone) {
    // So that it collides with none on the backup host, whose own snapshots are numbered alike.
    umask(022);
    ASSERT_EQ(freeze().status, 0);
    struct stat status = {};
    ASSERT_EQ(stat(copy_folder(1, 1).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    EXPECT_EQ(snapshot(1).objects[0].fifs, copy_folder(1, 1));
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Cycle, temporary_files_of_a_phase_go_with_it) {
    // The method's temporary names come from TMPDIR, which is the phase's own.
    script("freeze 1 temporary");
    ASSERT_EQ(freeze().status, 0);
    const auto made = calls();
    EXPECT_NE(std::find(made.begin(), made.end(), "note TMPDIR=" + state_ + "/tmp/1"), made.end());
    EXPECT_TRUE(test::exists(state_));
    EXPECT_FALSE(test::exists(state_ + "/tmp/1"));
}

}  // namespace
