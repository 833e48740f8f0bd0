// A restore from beginning to end: what is done in which order, what is refused, and what is left
// after every way in which it can end.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "fimctl/paths.h"
#include "fimctl/restore/host_view.h"
#include "tests/fimctl/fake_method/script.h"
#include "tests/fimctl/restore_world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::State;
using test::Ended;
using Calls = std::vector<std::string>;

struct Restore : test::RestoreWorld {
    bool told(const Ended &ended, const std::string &part) const {
        return ended.err.find(part) != std::string::npos;
    }
    void expect_frozen_and_untouched() const {
        EXPECT_EQ(snapshot(1).state, State::frozen);
        for (const auto &pair : fake::read_array()) EXPECT_EQ(pair.state, 5) << pair.device;
        expect_all_is_there();
    }
    void expect_restored() const {
        EXPECT_EQ(snapshot(1).state, State::restored);
        for (const auto &pair : fake::read_array()) EXPECT_EQ(pair.state, 8) << pair.device;
        expect_all_is_there();
    }
};

TEST_F(Restore, unmounts_deports_restores_and_brings_everything_back) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 0) << ended.err;
    expect_restored();
    EXPECT_EQ(calls_of("rebuild"), (Calls{"one restore=1 is_mount=0 at /data-one",
                                          "two restore=1 is_mount=0 at /data-two"}));
    EXPECT_EQ(calls_of("thaw_commit"), (Calls{"one", "two"}));
    EXPECT_EQ(calls_of("restore"), (Calls{"2"}));
    EXPECT_EQ(calls_of("check").front(), "/dev/qz/dsk/datadg/two ext4");
    const auto runs = calls_of("run");
    EXPECT_EQ(runs.back(), "mount -t ext4 /dev/qz/dsk/datadg/two /data-two");
    EXPECT_FALSE(test::exists("/var/lib/fimctl/tmp/1"));
}

TEST_F(Restore, groups_and_devices_go_together) {
    NEEDS_VOLUME("onedg", "one", "00A1");
    NEEDS_VOLUME("twodg", "two", "00A2");
    NEEDS_VOLUME("onedg", "raw", "00A3", "000184500123", 2);
    enter();
    EXPECT_EQ(restore().status, 0);
    expect_restored();
    EXPECT_EQ(calls_of("thaw_commit"), (Calls{"raw", "one", "two"}));
}

TEST_F(Restore, a_snapshot_of_devices_alone_mounts_nothing) {
    NEEDS_VOLUME("datadg", "raw", "00A1", "000184500123", 2);
    enter();
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 0) << ended.err;
    expect_restored();
    EXPECT_TRUE(calls_of("check").empty());
}

TEST_F(Restore, what_was_not_mounted_is_mounted_where_it_belongs) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    unmount("/data-one");
    unmount("/data-two");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 0) << ended.err;
    expect_restored();
    EXPECT_TRUE(told(ended, "/data-one (ext4, datadg/one): not mounted now; will be mounted"));
}

TEST_F(Restore, mounts_get_the_options_back_that_they_had) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    for (const char *directory : {"/data-one", "/data-two"}) {
        ASSERT_EQ(
            mount("", directory, nullptr, MS_REMOUNT | MS_BIND | MS_NOSUID | MS_NODEV, nullptr), 0);
    }
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 0) << ended.err;
    int found = 0;
    for (const auto &mount : fimctl::read_mounts()) {
        if (!mount.directory.starts_with("/data-")) continue;
        ++found;
        EXPECT_NE(mount.options.find("nosuid,nodev"), std::string::npos) << mount.options;
    }
    EXPECT_EQ(found, 2);
}

// Confirmation.

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
        usleep(700000);
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

// The array's word.

TEST_F(Restore, a_session_that_did_not_end_restores_nothing_and_is_told) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    script("deported 1 lie");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(told(ended, "the method reports success, but the array has restored nothing"))
        << ended.err;
    expect_frozen_and_untouched();
    // Nothing is lost: once more without the fault.
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(restore().status, 0);
    expect_restored();
}

TEST_F(Restore, a_pair_that_was_established_meanwhile_makes_the_copy_void) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    script("thaw_commit 1 state 00A1 2");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(told(ended, "is synchronised")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_NE(snapshot(1).void_reason, "");
    EXPECT_TRUE(told(ended, "next: the copy is gone; end the snapshot: fimctl release 1"));
    expect_all_is_there();
}

TEST_F(Restore, a_pair_that_changed_before_the_locks_were_held_stops_it) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    script("rebuild 1 state 00A1 2");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(told(ended, "and was not a moment ago")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_TRUE(calls_of("thaw_commit").empty());
    expect_all_is_there();
}

TEST_F(Restore, what_one_of_two_arrays_refused_is_restored_by_the_next_try) {
    NEEDS_VOLUME("onedg", "one", "00A1", "000184500123");
    NEEDS_VOLUME("twodg", "two", "00A2", "000184500999");
    enter();
    // The array of the first one does its part; the other's call is lost.
    script("control 1 state 00A1 8");
    script("control 1 refuse 000184500999");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(told(ended, "then: not everything is restored: pair 00A2")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::restoring);
    test::write_file("/var/fake/script", "");
    test::write_file("/var/fake/calls", "");
    const Ended second = restore();
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_TRUE(told(second, "done already")) << second.err;
    // The array would refuse the call for the sake of the restored one.
    EXPECT_EQ(calls_of("restore"), (Calls{"1"}));
    expect_restored();
}

TEST_F(Restore, a_pair_of_a_broken_off_restore_that_was_established_is_lost_and_says_so) {
    NEEDS_VOLUME("onedg", "one", "00A1", "000184500123");
    NEEDS_VOLUME("twodg", "two", "00A2", "000184500999");
    enter();
    script("control 1 state 00A1 8");
    script("control 1 state 00A2 2");
    script("control 1 refuse 000184500999");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 3);
    EXPECT_EQ(snapshot(1).state, State::restoring);
    EXPECT_TRUE(told(ended, "a part of the copy is gone")) << ended.err;
    EXPECT_EQ(restore().status, 2);
}

// Failures before anything is written.

TEST_F(Restore, a_failed_unmount_puts_everything_back_and_says_who_was_in_the_way) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    test::write_file("/data-two/file", "data");
    enter();
    script("thaw_commit 2 hold /data-two/file");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 1) << ended.err;
    EXPECT_TRUE(told(ended, "; /data-two is in use by process")) << ended.err;
    EXPECT_TRUE(told(ended, "next: end what uses it, then: fimctl restore 1"));
    expect_frozen_and_untouched();
    EXPECT_EQ(test::read_file("/data-two/file"), "data");
    fimctl::Busy asked;
    asked.file_systems = {*fimctl::block_number(restorable_[1]->block())};
    for (const auto &[device, users] : fimctl::users_of(asked)) {
        for (const auto &user : users) EXPECT_EQ(kill(user.pid, SIGKILL), 0);
    }
    usleep(100000);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(restore().status, 0);
    expect_restored();
}

TEST_F(Restore, a_user_that_cannot_be_seen_fails_the_unmount_and_loses_nothing) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    test::write_file("/data-two/file", "data");
    enter();
    {
        const test::InFlight hidden("/data-two/file");
        const Ended ended = restore();
        EXPECT_EQ(ended.status, 1) << ended.err;
        EXPECT_TRUE(told(ended, "next: run it again with -v")) << ended.err;
        expect_frozen_and_untouched();
    }
    EXPECT_EQ(restore().status, 0);
}

TEST_F(Restore, rolled_back_it_leaves_unmounted_what_was_unmounted) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    unmount("/data-two");
    // The method mounts the last object all the same.
    script("deported 1 lie");
    EXPECT_EQ(restore().status, 3);
    EXPECT_FALSE(is_mounted("/data-two"));
    EXPECT_TRUE(is_mounted("/data-one"));
    EXPECT_EQ(snapshot(1).state, State::frozen);
}

TEST_F(Restore, a_phase_that_dies_before_the_control_is_rolled_back) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    script("deported 1 die");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(told(ended, "the process of this step died")) << ended.err;
    EXPECT_TRUE(told(ended, "the snapshot stays frozen"));
    expect_frozen_and_untouched();
}

TEST_F(Restore, what_cannot_be_put_back_is_left_and_named) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    script("deported 1 fail 3 no more");
    test::write_file("/var/fake/no-import", "");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(told(ended,
                     "not everything is back: import of disk group datadg: qzdg: datadg: a "
                     "disk is missing"))
        << ended.err;
    EXPECT_EQ(snapshot(1).state, State::restoring);
    unlink("/var/fake/no-import");
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(restore().status, 0);
    expect_restored();
}

TEST_F(Restore, another_owner_of_the_mirrors_leaves_everything_as_it_is) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    script("rebuild 1 log lock pid(77) != pid(78): /lock");
    script("rebuild 1 fail 3 Cannot get lock on device");
    const Ended ended = restore();
    EXPECT_TRUE(ended.status == 11 || ended.status == 1) << ended.err;
    EXPECT_TRUE(told(ended, "then: nothing was done"));
    expect_frozen_and_untouched();
}

// Failures after it.

TEST_F(Restore, an_import_that_fails_afterwards_is_left_and_gone_on_with) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    test::write_file("/var/fake/no-import", "");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(told(ended, "the array has restored every pair")) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::restoring);
    unlink("/var/fake/no-import");
    test::write_file("/var/fake/calls", "");
    EXPECT_EQ(restore().status, 0);
    EXPECT_TRUE(calls_of("restore").empty()) << "nothing is written a second time";
    expect_restored();
}

TEST_F(Restore, a_directory_in_use_afterwards_is_left_and_gone_on_with) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    script("mounted 1 fail 3 Q_mount() failed");
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 3);
    EXPECT_EQ(snapshot(1).state, State::restoring);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(restore().status, 0);
    expect_restored();
}

TEST_F(Restore, a_snapshot_that_was_restored_is_over) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    ASSERT_EQ(restore().status, 0);
    const Ended ended = restore();
    EXPECT_EQ(ended.status, 2);
    EXPECT_TRUE(told(ended, "it is over: it is restored")) << ended.err;
    EXPECT_EQ(fimctl({"release", "1"}).status, 2);
    EXPECT_EQ(fimctl({"list"}).out, "no snapshots\n");
}

// The release of a restore that was not ended.

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
        usleep(50000);
        test::write_file("/var/fake/script", "");
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
    const Ended second = release({"--abandoned"});
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(snapshot(1).state, State::released);
    expect_all_is_there();
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
    usleep(50000);
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
