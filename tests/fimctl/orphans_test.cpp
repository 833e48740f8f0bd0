// orphans: whatever was begun and has not ended is named, with the command that ends it; nothing
// else is.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "fimctl/disk_group.h"
#include "fimctl/frozen_mark.h"
#include "fimctl/host.h"
#include "fimctl/inspect/process.h"
#include "fimctl/paths.h"
#include "fimctl/snapshot_lock.h"
#include "tests/fimctl/killing.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

namespace path = fimctl::path;
using fimctl::State;
using test::Ended;
using Json = nlohmann::json;

const std::string symid = "000184500123";

class Orphans : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        test::make_folders(path::counter_folder);
        one_ = add_file_system("one", symid, "00A1", "00B1");
    }
    void freeze() { ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0); }
    // Starts a command and kills it with all its processes when a call has begun.
    void kill_at(const std::string &call, const std::vector<std::string> &words) {
        const pid_t pid = start(words);
        EXPECT_TRUE(wait_for_call(call));
        test::kill_with_all(pid);
        test::write_file("/var/fake/script", "");
    }
    Json orphans() {
        const Ended ended = fimctl({"orphans", "--json"});
        EXPECT_EQ(ended.status, 0) << ended.err;
        return Json::parse(ended.out);
    }
    // The only one; a null one when there are none or more.
    Json orphan() {
        const Json all = orphans();
        EXPECT_EQ(all.size(), 1U) << all.dump(2);
        return all.size() == 1 ? all[0] : Json{{"what", ""}, {"command", ""}, {"kind", ""}};
    }
    static void write_counter(const std::string &group, int32_t pid) {
        const int32_t fields[3] = {pid, 1, 1};
        test::write_file(std::string(path::counter_folder) + "/__LOCKFILE_" + group,
                         std::string(reinterpret_cast<const char *>(fields), sizeof fields));
    }

    std::string one_;
};

TEST_F(Orphans, nothing_left_prints_nothing_and_ends_with_0) {
    Ended ended = fimctl({"orphans"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "fimctl: nothing is left over on this host\n");
    EXPECT_EQ(fimctl({"--quiet", "orphans"}).err, "");
    EXPECT_EQ(orphans(), Json::array());
    EXPECT_FALSE(test::exists(state_)) << "asking makes no catalogue";
    freeze();
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(orphans(), Json::array()) << "a snapshot that is over has ended";
}

TEST_F(Orphans, a_snapshot_between_two_commands_waits) {
    freeze();
    Json one = orphan();
    EXPECT_EQ(one["kind"], "snapshot");
    EXPECT_EQ(one["snapshot"], 1);
    EXPECT_EQ(one["name"], "1 of " + one_);
    EXPECT_EQ(one["what"], "frozen, waits to be mounted or released");
    EXPECT_EQ(one["waiting"], true);
    EXPECT_EQ(one["command"], "fimctl release 1");
    EXPECT_EQ(one["since"], snapshot(1).created);
    EXPECT_LT(one["age_seconds"], 100);
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    EXPECT_EQ(orphan()["what"], "mounted, waits to be released");
}

TEST_F(Orphans, the_text_is_aligned_and_names_the_command_below_each) {
    freeze();
    const std::string out = fimctl({"orphans"}).out;
    EXPECT_EQ(out.substr(0, 4), "KIND");
    EXPECT_NE(out.find("\n    -> fimctl release 1\n"), std::string::npos) << out;
    EXPECT_EQ(out.find(" \n"), std::string::npos) << out;
}

TEST_F(Orphans, a_snapshot_that_a_fimctl_works_on_is_none) {
    freeze();
    script("volumes 1 sleep 60000");
    const pid_t pid = start({"mount", "1"});
    ASSERT_TRUE(wait_for_call("volumes"));
    EXPECT_EQ(orphans(), Json::array());
    test::kill_with_all(pid);
    const Json one = orphan();
    EXPECT_EQ(one["what"], "mounting, its fimctl was killed");
    EXPECT_EQ(one["waiting"], false);
    EXPECT_EQ(one["command"], "fimctl cleanup 1");
}

TEST_F(Orphans, a_phase_that_outlives_its_command_keeps_the_snapshot_its_own) {
    freeze();
    const fimctl::SnapshotLock lock(state_, 1);
    EXPECT_EQ(orphans(), Json::array());
}

TEST_F(Orphans, looking_takes_no_lock_away_from_who_comes_just_then) {
    freeze();
    using fimctl::SnapshotLock;
    const pid_t looker = fork();
    if (looker == 0) {
        for (;;) SnapshotLock::state_of(state_, 1);
    }
    for (int i = 0; i < 200; ++i) EXPECT_NO_THROW(SnapshotLock(state_, 1));
    kill(looker, SIGKILL);
    waitpid(looker, nullptr, 0);
}

TEST_F(Orphans, a_run_that_was_killed_while_its_command_read_the_copy_is_interrupted) {
    const pid_t pid =
        start({"run", "--no-quiesce", one_, "--", "sh", "-c", "echo > /var/fake/runs; sleep 60"});
    for (int i = 0; i < 500 && !test::exists("/var/fake/runs"); ++i) usleep(10000);
    EXPECT_EQ(orphans(), Json::array());
    test::kill_with_all(pid);
    const Json one = orphan();
    EXPECT_EQ(one["what"], "mounted, its fimctl was killed");
    EXPECT_EQ(one["waiting"], false);
}

TEST_F(Orphans, a_snapshot_killed_while_it_froze_is_named_with_its_array_s_counter_file) {
    script("freeze 1 sleep 60000");
    const pid_t pid = start({"freeze", "--no-quiesce", one_});
    ASSERT_TRUE(wait_for_call("freeze"));
    test::kill_with_all(pid);
    write_counter("0001845001230000", processes_of("freeze").front());
    const Json all = orphans();
    ASSERT_EQ(all.size(), 2U) << all.dump(2);
    EXPECT_EQ(all[0]["what"], "begun, its fimctl was killed");
    EXPECT_EQ(all[1]["kind"], "counter file");
    EXPECT_EQ(all[1]["name"], "0001845001230000");
    EXPECT_EQ(all[1]["command"], "fimctl cleanup");
}

TEST_F(Orphans, between_two_phases_a_counter_file_of_a_dead_owner_is_the_rule) {
    freeze();
    const pid_t dead = processes_of("freeze").front();
    write_counter("0001845001230000", dead);
    EXPECT_EQ(orphans().size(), 1U) << "the next phase takes it over";
    write_counter("0001845004560000", dead);
    const Json all = orphans();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[1]["name"], "0001845004560000") << "no snapshot is on that array";
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(orphans().size(), 2U) << "now both are left over";
    write_counter("0001845001230000", getpid());
    EXPECT_EQ(orphans().size(), 1U) << "a living owner's is not";
}

TEST_F(Orphans, a_counter_file_that_the_method_would_not_take_over_is_left_to_the_operator) {
    write_counter("0001845001230000", getpid());
    const std::string file = std::string(path::counter_folder) + "/__LOCKFILE_0001845001230000";
    const time_t started = fimctl::process_info(getpid()).started;
    const utimbuf before = {started - 60, started - 60};
    utime(file.c_str(), &before);
    const Json one = orphan();
    EXPECT_NE(one["what"].get<std::string>().find("another one has its number"), std::string::npos);
    EXPECT_EQ(one["command"], "rm " + file);
}

TEST_F(Orphans, a_mount_below_the_folder_of_copies_belongs_to_a_snapshot_or_is_named) {
    freeze();
    const std::string own = copy_folder(1, 1), stray = state_ + "/mnt/host-7-1";
    test::make_folders(stray + "/deep");
    ASSERT_EQ(mount("tmpfs", own.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", stray.c_str(), "tmpfs", 0, nullptr), 0);
    test::make_folders(stray + "/deep");
    ASSERT_EQ(mount("tmpfs", (stray + "/deep").c_str(), "tmpfs", 0, nullptr), 0);
    const Json all = orphans();
    ASSERT_EQ(all.size(), 3U) << all.dump(2);
    EXPECT_EQ(all[1]["kind"], "mount");
    EXPECT_EQ(all[1]["path"], stray + "/deep") << "the deepest one has to go first";
    EXPECT_EQ(all[2]["path"], stray);
    for (const std::string &directory : {stray + "/deep", stray, own}) {
        EXPECT_EQ(umount(directory.c_str()), 0);
    }
    EXPECT_EQ(orphans()[1]["kind"], "folder") << "its place is left";
}

TEST_F(Orphans, temporary_files_of_a_snapshot_that_is_over_are_named) {
    freeze();
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    test::write_file(state_ + "/tmp/1/QfMSleft", "left");
    const Json one = orphan();
    EXPECT_EQ(one["kind"], "temporary files");
    EXPECT_EQ(one["path"], state_ + "/tmp/1");
}

TEST_F(Orphans, a_file_system_whose_guardian_was_killed_is_named_first) {
    freeze();
    const std::string mark = fimctl::frozen_mark_of(state_, 1);
    const pid_t guardian = fork();
    if (guardian == 0) {
        test::make_folders(state_ + "/tmp/1");
        fimctl::write_frozen_mark(mark, {"/data one", "/two"});
        pause();
    }
    for (int i = 0; i < 500 && fimctl::read_frozen_mark(mark).directories.size() < 2; ++i) {
        usleep(10000);
    }
    EXPECT_EQ(orphans().size(), 1U) << "a guardian that lives thaws by itself";
    kill(guardian, SIGKILL);
    waitpid(guardian, nullptr, 0);
    const Json all = orphans();
    ASSERT_EQ(all.size(), 3U) << all.dump(2);
    EXPECT_EQ(all[0]["kind"], "file system");
    EXPECT_EQ(all[0]["name"], "/data one");
    EXPECT_EQ(all[0]["snapshot"], 1);
    EXPECT_NE(all[0]["command"].get<std::string>().find("fsfreeze --unfreeze"), std::string::npos);
    const utimbuf before_boot = {1000000000, 1000000000};
    utime(mark.c_str(), &before_boot);
    EXPECT_EQ(orphans().size(), 1U) << "a reboot thaws everything";
}

TEST_F(Orphans, a_disk_group_that_no_snapshot_names_is_left_to_the_operator) {
    if (!test::is_real_root()) GTEST_SKIP() << "needs root: makes device nodes";
    const std::string volume = add_volume("datadg", "vol1", symid, "00A2", "00B2");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", volume}).status, 0);
    test::write_script(path::disk_group_tool,
                       "echo 'GROUP STATE HOST'\necho 'datadg imported here'\n"
                       "echo '" +
                           fimctl::clone_name(fimctl::short_host_name(), "datadg") +
                           " imported here'\n"
                           "echo 'lost_clone imported here'\necho 'other_clone deported -'");
    const Json all = orphans();
    ASSERT_EQ(all.size(), 2U) << all.dump(2);
    EXPECT_EQ(all[1]["kind"], "disk group");
    EXPECT_EQ(all[1]["name"], "lost_clone");
    EXPECT_EQ(all[1]["command"], "/usr/sbin/qzdg deport lost_clone");
}

TEST_F(Orphans, a_snapshot_in_the_hands_of_the_backup_host_is_named_with_both_ways_out) {
    freeze();
    ASSERT_EQ(fimctl({"export", "1"}).status, 0);
    const Json one = orphan();
    EXPECT_NE(one["what"].get<std::string>().find("not returned"), std::string::npos);
    EXPECT_NE(one["command"].get<std::string>().find("fimctl import"), std::string::npos);
    EXPECT_NE(one["command"].get<std::string>().find("--abandoned"), std::string::npos);
    EXPECT_EQ(one["waiting"], true);
}

TEST_F(Orphans, nothing_is_changed_by_looking) {
    freeze();
    test::write_file(state_ + "/tmp/9/QfMSleft", "left");
    test::make_folders(state_ + "/mnt/host-7-1");
    write_counter("0001845004560000", 2000000000);
    const std::string before = story();
    orphans();
    EXPECT_EQ(story(), before);
    EXPECT_TRUE(test::exists(state_ + "/tmp/9/QfMSleft"));
    EXPECT_TRUE(test::exists(state_ + "/mnt/host-7-1"));
    EXPECT_EQ(orphans().size(), 4U);
}

}  // namespace
