// A restore from beginning to end: what is done in which order, what is refused, and what is left
// after every way in which it can end.
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
    EXPECT_NE(fimctl({"mount", "1"}).err.find("next: fimctl restore 1"), std::string::npos);
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

}  // namespace
