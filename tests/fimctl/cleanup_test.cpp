// cleanup: what orphans names is ended; what somebody works on, or must decide about, is not.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "fimctl/frozen_mark.h"
#include "fimctl/paths.h"
#include "fimctl/snapshot_lock.h"
#include "tests/fimctl/killing.h"
#include "tests/fimctl/loop_file_system.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

namespace fs = std::filesystem;
namespace path = fimctl::path;
using fimctl::State;
using test::Ended;
using Json = nlohmann::json;

const std::string symid = "000184500123";

bool has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return true;
    ADD_FAILURE() << "no \"" << part << "\" in:\n" << text;
    return false;
}

class Cleanup : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        test::make_folders(path::counter_folder);
        test::make_folders(path::host_lock_folder);
        one_ = add_file_system("one", symid, "00A1", "00B1");
    }
    void freeze(const std::string &source) {
        ASSERT_EQ(fimctl({"freeze", "--no-quiesce", source}).status, 0);
    }
    void expect_nothing_left() {
        const Ended ended = fimctl({"orphans"});
        EXPECT_EQ(ended.out, "");
        EXPECT_TRUE(fs::is_empty(state_ + "/mnt"));
        EXPECT_TRUE(!test::exists(state_ + "/tmp") || fs::is_empty(state_ + "/tmp"));
    }
    static std::string write_counter(const std::string &group, int32_t pid) {
        const int32_t fields[3] = {pid, 1, 1};
        const std::string file = std::string(path::counter_folder) + "/__LOCKFILE_" + group;
        test::write_file(file, std::string(reinterpret_cast<const char *>(fields), sizeof fields));
        return file;
    }

    std::string one_;
};

TEST_F(Cleanup, with_nothing_left_does_nothing_and_says_so) {
    const Ended ended = fimctl({"cleanup"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "fimctl: nothing is left over\n");
    EXPECT_FALSE(test::exists(state_));
}

TEST_F(Cleanup, leaves_a_snapshot_that_waits_and_ends_it_when_asked) {
    freeze(one_);
    Ended ended = fimctl({"cleanup"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(has(ended.err, "stays: frozen, waits to be mounted or released"));
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_EQ(fimctl({"cleanup", "1"}).status, 0);
    EXPECT_EQ(snapshot(1).state, State::released);
    EXPECT_EQ(array_state("00A1"), 2);
    ended = fimctl({"cleanup", "1"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(has(ended.err, "snapshot 1 is over already"));
    freeze(one_);
    EXPECT_EQ(fimctl({"cleanup", "--all"}).status, 0);
    EXPECT_EQ(snapshot(2).state, State::released);
    expect_nothing_left();
}

TEST_F(Cleanup, of_some_snapshots_touches_nothing_else) {
    const std::string two = add_file_system("two", symid, "00A2", "00B2");
    freeze(one_);
    freeze(two);
    test::make_folders(state_ + "/mnt/host-7-1");
    EXPECT_EQ(fimctl({"cleanup", "2"}).status, 0);
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_EQ(snapshot(2).state, State::released);
    EXPECT_TRUE(test::exists(state_ + "/mnt/host-7-1"));
}

TEST_F(Cleanup, of_an_unknown_snapshot_ends_with_10_before_anything_is_done) {
    freeze(one_);
    EXPECT_EQ(fimctl({"cleanup", "1", "7"}).status, 10);
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_EQ(fimctl({"cleanup", "--all", "1"}).status, 2);
}

TEST_F(Cleanup, never_touches_a_snapshot_that_somebody_works_on) {
    freeze(one_);
    script("volumes 1 sleep 60000");
    const pid_t pid = start({"mount", "1"});
    ASSERT_TRUE(wait_for_call("volumes"));
    EXPECT_EQ(fimctl({"cleanup", "--all"}).status, 0) << "it is nobody's orphan";
    EXPECT_TRUE(test::exists(copy_folder(1, 1)));
    EXPECT_TRUE(test::exists(state_ + "/tmp/1"));
    const Ended ended = fimctl({"cleanup", "1"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(has(ended.err, "snapshot 1 is left: another fimctl works on it"));
    EXPECT_EQ(snapshot(1).state, State::mounting);
    test::kill_with_all(pid);
}

TEST_F(Cleanup, goes_on_after_a_release_that_fails_and_ends_with_3) {
    const std::string two = add_file_system("two", symid, "00A2", "00B2");
    freeze(one_);
    freeze(two);
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    script("thaw 1 fail 3 umount: " + one_ + " is busy");
    Ended ended = fimctl({"cleanup", "1"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(has(ended.err, "is left: umount"));
    EXPECT_TRUE(has(ended.err, "next: "));
    test::write_file("/var/fake/script", "");
    test::write_file("/var/fake/owner", "1");
    ended = fimctl({"--lock-wait", "0", "cleanup", "--all"});
    EXPECT_EQ(ended.status, 3) << "process 1 owns the array";
    EXPECT_TRUE(has(ended.err, "snapshot 1 of " + one_ + " is left"));
    EXPECT_TRUE(has(ended.err, "snapshot 2 of " + two + " is left"));
    unlink("/var/fake/owner");
    EXPECT_EQ(fimctl({"cleanup", "--all"}).status, 0);
    expect_nothing_left();
}

TEST_F(Cleanup, unmounts_strays_below_the_folder_of_copies_and_nowhere_else) {
    freeze(one_);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    const std::string stray = state_ + "/mnt/host-7-1";
    test::make_folders(stray);
    test::make_folders("/elsewhere");
    ASSERT_EQ(mount("tmpfs", stray.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/elsewhere", "tmpfs", 0, nullptr), 0);
    const Ended ended = fimctl({"cleanup"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(has(ended.err, "mount " + stray + ": ended"));
    EXPECT_FALSE(test::exists(stray));
    EXPECT_EQ(umount("/elsewhere"), 0) << "it is still there";
    expect_nothing_left();
}

TEST_F(Cleanup, a_stray_that_is_in_use_is_left_with_the_way_to_its_users) {
    freeze(one_);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    const std::string stray = state_ + "/mnt/host-7-1";
    test::make_folders(stray);
    ASSERT_EQ(mount("tmpfs", stray.c_str(), "tmpfs", 0, nullptr), 0);
    const int user = open(stray.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const Ended ended = fimctl({"cleanup"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(has(ended.err, "fuser -vm " + stray));
    close(user);
    EXPECT_EQ(umount(stray.c_str()), 0);
}

TEST_F(Cleanup, a_folder_in_the_place_of_a_copy_is_removed_only_when_it_is_empty) {
    freeze(one_);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    test::write_file(state_ + "/mnt/host-7-2/precious", "data");
    EXPECT_EQ(fimctl({"cleanup"}).status, 3);
    EXPECT_TRUE(test::exists(state_ + "/mnt/host-7-2/precious"));
}

// What is empty in a copy is a part of the copy: only what fimctl has made is taken away.
TEST_F(Cleanup, removes_no_folder_that_fimctl_has_not_made) {
    freeze(one_);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    const std::string folder = state_ + "/mnt";
    test::make_folders(folder + "/own");
    test::make_folders(folder + "/host-x-1");
    EXPECT_EQ(fimctl({"cleanup"}).status, 0);
    EXPECT_TRUE(test::exists(folder + "/own"));
    EXPECT_TRUE(test::exists(folder + "/host-x-1"));
    // A copy that an earlier release was told to mount on the folder of the copies.
    ASSERT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr), 0);
    test::make_folders(folder + "/lost+found");
    test::make_folders(folder + "/host-7-1");
    EXPECT_EQ(fimctl({"cleanup"}).status, 0);
    EXPECT_TRUE(test::exists(folder + "/lost+found"));
    EXPECT_TRUE(test::exists(folder + "/host-7-1"));
    ASSERT_EQ(umount(folder.c_str()), 0);
}

TEST_F(Cleanup, takes_temporary_files_and_counter_files_of_dead_owners_away) {
    freeze(one_);
    const std::string expected = write_counter("0001845001230000", 2000000000);
    const std::string stray = write_counter("0001845004560000", 2000000000);
    const std::string owned = write_counter("0001845007890000", getpid());
    test::write_file(state_ + "/tmp/9/deep/QfMSleft", "left");
    EXPECT_EQ(fimctl({"cleanup"}).status, 0);
    EXPECT_FALSE(test::exists(stray));
    EXPECT_FALSE(test::exists(state_ + "/tmp/9"));
    EXPECT_TRUE(test::exists(expected)) << "the next phase of snapshot 1 takes it over";
    EXPECT_TRUE(test::exists(owned));
}

// A fimctl that is killed while it enters a snapshot leaves its lock's file and no snapshot: the
// catalogue is as it was.
TEST_F(Cleanup, takes_the_lock_of_a_snapshot_that_was_never_entered_away) {
    freeze(one_);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    const std::string folder = fimctl::lock_folder_of(state_);
    const std::string over = folder + "/1", unknown = folder + "/2", held = folder + "/3";
    test::write_file(over, "");
    test::write_file(unknown, "");
    {
        const fimctl::SnapshotLock lock(state_, 3);
        const Ended named = fimctl({"orphans"});
        EXPECT_TRUE(has(named.out, unknown)) << named.out;
        EXPECT_EQ(fimctl({"cleanup"}).status, 0);
        EXPECT_FALSE(test::exists(over));
        EXPECT_FALSE(test::exists(unknown));
        EXPECT_TRUE(test::exists(held)) << "somebody works on it";
    }
    EXPECT_EQ(fimctl({"orphans"}).out, "");
}

TEST_F(Cleanup, of_a_disk_group_that_no_snapshot_names_is_the_operator_s) {
    test::write_script(path::disk_group_tool, "echo GROUP STATE\necho 'lost_clone imported here'");
    const Ended ended = fimctl({"cleanup"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(has(ended.err, "next: /usr/sbin/qzdg deport lost_clone"));
}

TEST_F(Cleanup, of_a_snapshot_in_the_hands_of_the_backup_host_is_the_operator_s) {
    freeze(one_);
    ASSERT_EQ(fimctl({"export", "1"}).status, 0);
    EXPECT_EQ(fimctl({"cleanup"}).status, 0) << "it waits";
    const Ended ended = fimctl({"cleanup", "--all"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(has(ended.err, "--abandoned"));
    EXPECT_EQ(snapshot(1).state, State::frozen);
}

// A run that is stopped at a call, killed with everything that it has started, named, cleaned up,
// and started again.
struct Stop {
    const char *name;
    const char *script;  // stops the call
    const char *call;    // has begun when the run is killed
    size_t times;        // how often, in all processes
    const char *state;   // of the snapshot then
    long array_state;    // of its pair then
};

void PrintTo(const Stop &stop, std::ostream *out) {
    *out << stop.name;
}

class KilledRun : public Cleanup, public testing::WithParamInterface<Stop> {
  protected:
    bool wait_for_calls(const std::string &call, size_t times) {
        for (int i = 0; i < 1000 && processes_of(call).size() < times; ++i) usleep(10000);
        return processes_of(call).size() >= times;
    }
};

TEST_P(KilledRun, is_named_and_cleaned_up_and_the_next_run_succeeds) {
    const Stop stop = GetParam();
    test::write_file("/var/fake/array", symid + " 00A1 00B1 5\n");
    // The release rebuilds as the mount does: what stops only the former comes with the command.
    test::write_file("/var/fake/hanging", "SymDevShow -1\n");
    test::write_file("/var/fake/slow", "ckpt 1 sleep 60000\n");
    test::write_file("/var/fake/later", stop.script);
    const bool later =
        std::string(stop.state) == "releasing" || std::string(stop.state) == "mounted";
    if (!later) script(stop.script);
    const pid_t pid = start({"run", "--no-quiesce", one_, "--", "sh", "-c",
                             "cp /var/fake/later /var/fake/script; echo >> /var/fake/runs; "
                             "[ -s /var/fake/script ] || sleep 60"});
    if (std::string(stop.call) == "command") {
        for (int i = 0; i < 1000 && !test::exists("/var/fake/runs"); ++i) usleep(10000);
    } else {
        ASSERT_TRUE(wait_for_calls(stop.call, stop.times));
    }
    usleep(50000);
    test::kill_with_all(pid);
    test::write_file("/var/fake/script", "");
    test::write_file("/var/fake/symapi", "");
    EXPECT_STREQ(name_of(snapshot(1).state), stop.state);
    EXPECT_EQ(array_state("00A1"), stop.array_state);
    EXPECT_TRUE(has(fimctl({"orphans"}).out, std::string(stop.state) + ", its fimctl was killed"));

    const Ended ended = fimctl({"cleanup"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    expect_nothing_left();
    EXPECT_EQ(array_state("00A1"), std::string(stop.state) == "begun" ? stop.array_state : 2)
        << "its pair is established again where it had been split";
    EXPECT_FALSE(test::exists(copy_folder(1, 1)));
    const Ended next = fimctl({"run", "--no-quiesce", one_, "--", "true"});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(array_state("00A1"), 2);
    expect_nothing_left();
}

INSTANTIATE_TEST_SUITE_P(
    at, KilledRun,
    testing::Values(
        Stop{"freeze", "freeze 1 sleep 60000", "freeze", 1, "begun", 5},
        Stop{"control", "ctl 1 sleep 60000", "ctl", 1, "begun", 5},
        Stop{"reading_the_states", "ckpt 1 sleep 60000", "ckpt", 1, "begun", 2},
        Stop{"the_commit", "freeze_commit 1 sleep 60000", "freeze_commit", 1, "cutting", 2},
        Stop{"the_checkpoint_after_the_split", "ckpt 2 sleep 60000", "ckpt", 2, "cutting", 5},
        Stop{"the_judgement", "ckpt 2 copy /var/fake/hanging /var/fake/symapi", "hang", 1,
             "cutting", 5},
        Stop{"the_rebuild_of_the_mount", "rebuild 1 sleep 60000", "rebuild", 1, "mounting", 5},
        Stop{"the_mount", "volumes 1 sleep 60000", "volumes", 1, "mounting", 5},
        Stop{"the_checkpoint_of_the_mount", "volumes 1 copy /var/fake/slow /var/fake/script",
             "ckpt", 3, "mounting", 5},
        Stop{"the_command", "", "command", 1, "mounted", 5},
        Stop{"the_rebuild_of_the_release", "rebuild 1 sleep 60000", "rebuild", 2, "releasing", 5},
        Stop{"the_thaw", "thaw 1 sleep 60000", "thaw", 1, "releasing", 5},
        Stop{"the_thaw_commit", "thaw_commit 1 sleep 60000", "thaw_commit", 1, "releasing", 5}),
    [](const auto &stop) { return stop.param.name; });

class FrozenAndKilled : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        add_object("/one", 3, symid, "00A1", "00B1");
    }
    test::LoopFileSystem one_{"/one"};
};

TEST_F(FrozenAndKilled, a_file_system_that_a_killed_guardian_left_frozen_is_named_and_thawed) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("freeze_commit 1 sleep 60000");
    const pid_t pid = start({"run", "--freeze-deadline", "60", "/one", "--", "true"});
    ASSERT_TRUE(wait_for_call("freeze_commit"));
    ASSERT_TRUE(one_.is_frozen());
    test::kill_with_all(pid);
    ASSERT_TRUE(one_.is_frozen()) << "nobody was left to thaw it";
    test::write_file("/var/fake/script", "");
    const Ended named = fimctl({"orphans"});
    EXPECT_TRUE(has(named.out, "file system  /one"));
    EXPECT_TRUE(has(named.out, "fsfreeze --unfreeze /one"));
    const Ended ended = fimctl({"cleanup"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(has(ended.err, "thawed /one"));
    EXPECT_FALSE(one_.is_frozen());
    EXPECT_EQ(fimctl({"orphans"}).out, "");
}

TEST_F(FrozenAndKilled, a_release_thaws_as_well_before_anything_else) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("freeze_commit 1 sleep 60000");
    const pid_t pid = start({"freeze", "--freeze-deadline", "60", "/one"});
    ASSERT_TRUE(wait_for_call("freeze_commit"));
    test::kill_with_all(pid);
    ASSERT_TRUE(one_.is_frozen());
    test::write_file("/var/fake/script", "freeze 1 frozen? /one\n");
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(has(ended.err, "thawed /one, which its killed guardian had left frozen"));
    bool thawed_first = false;
    for (const std::string &call : calls()) thawed_first |= call == "note not frozen /one";
    EXPECT_TRUE(thawed_first);
}

TEST_F(FrozenAndKilled, an_orderly_cut_leaves_no_note_of_what_it_froze) {
    NEEDS_LOOP_FILE_SYSTEM(one_);
    script("freeze_commit 1 copy " + fimctl::frozen_mark_of(state_, 1) + " /var/fake/mark");
    ASSERT_EQ(fimctl({"freeze", "/one"}).status, 0);
    EXPECT_TRUE(has(test::read_file("/var/fake/mark"), "/one"));
    EXPECT_FALSE(test::exists(fimctl::frozen_mark_of(state_, 1)));
}

}  // namespace
