// The site's own programs around each step of a snapshot's life.
#include "fimctl/hooks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>

#include "fimctl/hook_process.h"
#include "tests/fimctl/loop_file_system.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::State;
using test::Ended;

constexpr char folder[] = "/etc/fimctl/hooks.d/";
// Each hook's word, in order.
constexpr char record[] = "/var/fake/hooks";

class Hooks : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "00B1");
    }
    void add_hook(const std::string &name, const std::string &body) {
        test::write_script(folder + name, body);
    }
    void add_recorder(const std::string &name = "10-record") {
        add_hook(name, "echo \"" + name + " $1 $FIMCTL_RESULT\" >>" + record);
    }
    static std::string recorded() {
        return test::exists(record) ? test::read_file(record) : std::string();
    }
    Ended freeze() { return fimctl({"freeze", "--no-quiesce", one_}); }
    Ended run(const std::vector<std::string> &command) {
        std::vector<std::string> words = {"run", "--no-quiesce", one_, "--"};
        words.insert(words.end(), command.begin(), command.end());
        return fimctl(words);
    }
    static bool wait_for_file(const std::string &path) {
        for (int i = 0; i < 1000 && !test::exists(path); ++i) usleep(10000);
        return test::exists(path);
    }

    std::string one_;
};

TEST_F(Hooks, every_step_of_a_run_is_announced_and_ended) {
    add_recorder();
    ASSERT_EQ(run({"true"}).status, 0);
    EXPECT_EQ(recorded(),
              "10-record pre-freeze \n"
              "10-record pre-split \n"
              "10-record post-split done\n"
              "10-record post-freeze done\n"
              "10-record pre-mount \n"
              "10-record post-mount done\n"
              "10-record pre-release \n"
              "10-record post-release done\n");
}

TEST_F(Hooks, run_in_the_order_of_their_names) {
    add_recorder("20-second");
    add_recorder("100-first");
    add_recorder("20-Second");
    ASSERT_EQ(freeze().status, 0);
    EXPECT_TRUE(
        recorded().starts_with("100-first pre-freeze \n"
                               "20-Second pre-freeze \n"
                               "20-second pre-freeze \n"))
        << recorded();
}

TEST_F(Hooks, the_split_is_announced_after_the_mirrors_are_ready_and_ended_before_the_texts) {
    add_hook("10-record", "echo \"$$ note hook-$1\" >>/var/fake/calls");
    ASSERT_EQ(freeze().status, 0);
    std::string order;
    for (const std::string &call : calls()) {
        if (call.starts_with("Sym")) continue;
        const std::string name = call.substr(0, call.find(' '));
        if (name == "note" || name == "ctl" || name == "freeze_commit" || name == "ckpt") {
            order += (name == "note" ? call.substr(5) : name) + "\n";
        }
    }
    EXPECT_EQ(order,
              "hook-pre-freeze\nctl\nckpt\nhook-pre-split\nfreeze_commit\nhook-post-split\nckpt\n"
              "hook-post-freeze\n");
}

TEST_F(Hooks, know_the_snapshot_its_paths_its_copies_and_its_catalogue) {
    const std::string two = add_file_system("two", "000184500123", "00A2", "00B2");
    add_hook("10-env",
             "[ \"$1\" = \"$FIMCTL_PHASE\" ] || exit 1\n"
             "[ \"$1\" = post-mount ] || exit 0\n"
             "{ echo \"$FIMCTL_SNAPSHOT|$FIMCTL_PATHS|$FIMCTL_COPIES|$FIMCTL_STATE|$PWD\"; } >" +
                 std::string(record));
    ASSERT_EQ(fimctl({"--state", "/var/lib/other", "run", "--no-quiesce", one_, two, "--", "true"})
                  .status,
              0);
    const std::string seen = recorded();
    EXPECT_TRUE(seen.starts_with("1|" + one_ + "\n" + two + "|/var/lib/other/mnt/")) << seen;
    EXPECT_TRUE(seen.ends_with("|/var/lib/other|/\n")) << seen;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), '\n'), 3) << "a copy a line: " << seen;
}

TEST_F(Hooks, a_failing_one_before_the_freeze_stops_it_before_the_array_is_asked) {
    add_recorder("05-record");
    add_hook("10-fails",
             "[ $1 != pre-freeze ] || { echo no disk; echo database down >&2; exit 4; }");
    add_recorder("20-record");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(
        ended.err.find(
            "snapshot 1: step \"run the hooks\" failed: hook "
            "/etc/fimctl/hooks.d/10-fails, told of phase \"pre-freeze\", ended with status 4: "
            "database down"),
        std::string::npos)
        << ended.err;
    EXPECT_TRUE(story().empty());
    EXPECT_EQ(snapshot(1).state, State::failed);
    EXPECT_EQ(recorded(),
              "05-record pre-freeze \n"
              "05-record post-freeze failed\n20-record post-freeze failed\n"
              "05-record failed failed\n20-record failed failed\n")
        << "whoever was told to hold still is told to go on";
    EXPECT_FALSE(test::exists("/var/lib/fimctl/mnt/1-1"));
}

TEST_F(Hooks, a_failing_one_before_the_split_stops_it_and_all_is_rolled_back) {
    add_recorder("05-record");
    add_hook("10-fails", "[ $1 != pre-split ]");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 1) << ended.err;
    EXPECT_NE(ended.err.find("fimctl: then: rolled back"), std::string::npos) << ended.err;
    EXPECT_EQ(story(), "freeze ctl ckpt thaw thaw_commit") << "nothing was split";
    EXPECT_EQ(snapshot(1).state, State::failed);
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_EQ(recorded(),
              "05-record pre-freeze \n05-record pre-split \n05-record post-split failed\n"
              "05-record post-freeze failed\n05-record failed failed\n");
}

TEST_F(Hooks, a_failed_cut_is_ended_too_with_the_reason_for_those_who_are_told_of_failures) {
    add_recorder();
    add_hook("20-reason", "[ $1 != failed ] || echo \"$FIMCTL_EXIT_CODE $FIMCTL_FAILURE\" >>" +
                              std::string(record));
    script("freeze_commit 1 fail 4 no luck");
    EXPECT_EQ(freeze().status, 1);
    EXPECT_EQ(recorded(),
              "10-record pre-freeze \n10-record pre-split \n10-record post-split failed\n"
              "10-record post-freeze failed\n10-record failed failed\n1 no luck\n");
}

TEST_F(Hooks, a_failing_one_after_the_split_is_told_and_changes_nothing) {
    add_recorder("20-record");
    add_hook("10-fails", "case $1 in post-*) echo sorry; exit 3;; esac");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(
        ended.err.find(
            "fimctl: hook /etc/fimctl/hooks.d/10-fails, told of phase \"post-split\", ended with "
            "status 3: sorry\n"),
        std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_NE(recorded().find("20-record post-split done"), std::string::npos)
        << "those behind it are told as well";
}

TEST_F(Hooks, a_failing_one_before_the_mount_leaves_the_snapshot_frozen) {
    ASSERT_EQ(freeze().status, 0);
    add_hook("10-fails", "[ $1 != pre-mount ]");
    EXPECT_EQ(fimctl({"mount", "1"}).status, 1);
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_EQ(story(), "freeze ctl ckpt freeze_commit ckpt");
}

TEST_F(Hooks, a_failing_one_before_a_release_does_not_stop_it) {
    ASSERT_EQ(freeze().status, 0);
    add_hook("10-fails", "exit 1");
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_NE(ended.err.find("10-fails, told of phase \"pre-release\", ended with status 1"),
              std::string::npos);
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Hooks, one_that_hangs_is_killed_with_all_it_has_started) {
    add_hook("10-hangs",
             "[ $1 = pre-split ] || exit 0\ntrap '' TERM\nsh -c \"trap '' TERM; echo \\$\\$ "
             ">/var/fake/child; sleep 300\" &\necho $$ >/var/fake/hanging\nwait");
    const Ended ended = fimctl({"--hook-timeout", "0.3", "freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(
        ended.err.find("10-hangs, told of phase \"pre-split\", did not end within 0.3 seconds"),
        std::string::npos)
        << ended.err;
    for (const char *name : {"/var/fake/hanging", "/var/fake/child"}) {
        const int pid = atoi(test::read_file(name).c_str());
        ASSERT_GT(pid, 1) << name;
        EXPECT_TRUE(test::wait_until_gone(pid)) << name;
    }
    EXPECT_EQ(story(), "freeze ctl ckpt thaw thaw_commit");
}

TEST_F(Hooks, one_that_leaves_a_process_behind_is_not_waited_for) {
    add_hook("10-daemon", "sleep 3 &\necho started");
    const time_t before = time(nullptr);
    EXPECT_EQ(fimctl({"--hook-timeout", "2", "freeze", "--no-quiesce", one_}).status, 0);
    EXPECT_LT(time(nullptr) - before, 2);
}

TEST_F(Hooks, an_interruption_before_the_split_ends_the_hook_and_rolls_back) {
    add_hook("10-slow", "[ $1 != pre-split ] || { : >/var/fake/slow; sleep 300; }");
    const pid_t pid = start({"freeze", "--no-quiesce", one_});
    ASSERT_TRUE(wait_for_file("/var/fake/slow"));
    kill(pid, SIGINT);
    const Ended ended = finish(pid);
    EXPECT_EQ(ended.status, 130) << ended.err;
    EXPECT_NE(ended.err.find("10-slow, told of phase \"pre-split\", was interrupted"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(story(), "freeze ctl ckpt thaw thaw_commit");
    EXPECT_EQ(snapshot(1).state, State::failed);
}

TEST_F(Hooks, an_interruption_after_the_split_lets_the_hook_end) {
    add_hook("10-slow",
             "[ $1 != post-split ] || { : >/var/fake/slow; sleep 0.5; : >/var/fake/end; }");
    const pid_t pid = start({"run", "--no-quiesce", one_, "--", "true"});
    ASSERT_TRUE(wait_for_file("/var/fake/slow"));
    kill(pid, SIGINT);
    EXPECT_EQ(finish(pid).status, 130);
    EXPECT_TRUE(test::exists("/var/fake/end"));
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Hooks, no_file_system_is_frozen_while_one_runs) {
    test::LoopFileSystem real("/data-real");
    NEEDS_LOOP_FILE_SYSTEM(real);
    add_object("/data-real", 3, "000184500123", "00A7", "00B7");
    // A file system that is frozen lets nobody write.
    add_hook("10-writes",
             "timeout 2 touch /data-real/written-$1 || echo \"$1 stuck\" >>" + std::string(record));
    script("freeze_commit 1 frozen? /data-real");
    const Ended ended = fimctl({"freeze", "--freeze-deadline", "1", "/data-real"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(recorded(), "");
    EXPECT_TRUE(test::exists("/data-real/written-pre-split"));
    EXPECT_TRUE(test::exists("/data-real/written-post-split"));
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Hooks, their_lines_go_to_the_log_and_to_who_asks_for_them) {
    add_hook("10-talks", "echo \"out $1\"; echo \"err $1\" >&2; printf unended");
    const Ended quiet = fimctl({"--log", "/var/fim.log", "freeze", "--no-quiesce", one_});
    ASSERT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err.find("out pre-freeze"), std::string::npos);
    EXPECT_EQ(quiet.out, "1\n") << "a hook never writes on standard output";
    const std::string text = test::read_file("/var/fim.log");
    EXPECT_NE(text.find("hook 10-talks: out pre-freeze\n"), std::string::npos) << text;
    EXPECT_NE(text.find("hook 10-talks: err post-split\n"), std::string::npos) << text;
    EXPECT_NE(text.find("hook 10-talks: unended\n"), std::string::npos) << text;
    EXPECT_NE(fimctl({"-v", "release", "1"}).err.find("fimctl: hook 10-talks: out pre-release\n"),
              std::string::npos);
}

TEST_F(Hooks, get_no_input_and_none_of_fimctls_files) {
    add_hook("10-files",
             "[ $1 = pre-split ] || exit 0\nread line && echo input >>" + std::string(record) +
                 "\nls -l /proc/self/fd | grep -E 'socket|fimctl|fim.log' >>" + record + "; :");
    ASSERT_EQ(fimctl({"--log", "/var/fim.log", "freeze", "--no-quiesce", one_}).status, 0);
    EXPECT_TRUE(test::exists(record));
    EXPECT_EQ(recorded(), "");
}

TEST_F(Hooks, a_refused_one_stops_the_freeze_before_anything_is_done) {
    add_recorder("10-open");
    add_recorder("20-link-target");
    add_recorder("30-good");
    ASSERT_EQ(chmod((std::string(folder) + "10-open").c_str(), 0777), 0);
    ASSERT_EQ(symlink("20-link-target", (std::string(folder) + "15-link").c_str()), 0);
    test::write_file(std::string(folder) + "README", "words", 0644);
    test::write_file(std::string(folder) + ".hidden", "words", 0644);
    test::write_file(std::string(folder) + "30-good~", "words", 0644);
    test::make_folders(std::string(folder) + "40-folder");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 1) << ended.err;
    for (const char *line : {"10-open is refused: others than root can write it",
                             "15-link is refused: it is no regular file",
                             "40-folder is refused: it is no regular file",
                             "README is refused: it is not executable"}) {
        const size_t at = ended.err.find(line);
        ASSERT_NE(at, std::string::npos) << line << ended.err;
        EXPECT_EQ(ended.err.find(line, at + 1), std::string::npos) << "once: " << line;
    }
    EXPECT_NE(ended.err.find("next: chown root /etc/fimctl/hooks.d/10-open; chmod 755 "),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("to pass it over: move it to /etc/fimctl/hooks.d/.10-open; to do "
                             "without any hook: --hooks ''"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(ended.err.find(".hidden"), std::string::npos);
    EXPECT_EQ(ended.err.find("30-good~"), std::string::npos);
    EXPECT_EQ(recorded(), "");
    EXPECT_TRUE(story().empty());
    EXPECT_EQ(fimctl({"list", "--all"}).out, "no snapshots\n");
    EXPECT_EQ(fimctl({"--hooks", "", "freeze", "--no-quiesce", one_}).status, 0);
}

TEST_F(Hooks, a_refused_one_stops_the_mount_and_never_the_release) {
    ASSERT_EQ(freeze().status, 0);
    test::write_file(std::string(folder) + "README", "words", 0644);
    EXPECT_EQ(fimctl({"mount", "1"}).status, 1);
    EXPECT_EQ(snapshot(1).state, State::frozen);
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.err.find("README is refused: it is not executable"), std::string::npos);
}

TEST_F(Hooks, the_phase_failed_is_not_told_like_a_hook_that_has_failed) {
    add_recorder();
    script("freeze 1 fail 5 no");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("telling hook 10-record of phase \"failed\""), std::string::npos)
        << ended.err;
    EXPECT_EQ(ended.err.find("hook 10-record failed"), std::string::npos) << ended.err;
}

TEST_F(Hooks, a_file_of_another_owner_is_refused) {
    if (!test::is_real_root()) GTEST_SKIP() << "needs root to give a file away";
    add_recorder("10-given");
    ASSERT_EQ(chown((std::string(folder) + "10-given").c_str(), 12345, 0), 0);
    EXPECT_NE(freeze().err.find("10-given is refused: it does not belong to root"),
              std::string::npos);
    EXPECT_EQ(recorded(), "");
}

TEST_F(Hooks, a_folder_that_others_can_write_is_refused_as_a_whole) {
    add_recorder();
    ASSERT_EQ(chmod("/etc/fimctl/hooks.d", 01777), 0);
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("hook /etc/fimctl/hooks.d is refused: others than root can write it"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(recorded(), "");
}

TEST_F(Hooks, another_folder_or_none_is_named_by_a_setting) {
    add_recorder();
    test::write_script("/etc/other/10-other", std::string("echo other >>") + record);
    ASSERT_EQ(fimctl({"--hooks", "/etc/other", "freeze", "--no-quiesce", one_}).status, 0);
    EXPECT_TRUE(recorded().starts_with("other\nother\n")) << recorded();
    unlink(record);
    ASSERT_EQ(fimctl({"--hooks", "", "release", "1"}).status, 0);
    EXPECT_EQ(recorded(), "");
    const Ended missing = fimctl({"--hooks", "/etc/none", "freeze", "--no-quiesce", one_});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("hook /etc/none is refused: No such file"), std::string::npos)
        << missing.err;
    EXPECT_TRUE(processes_of("freeze").size() == 1) << "only the first snapshot was begun";
    // The built-in one need not be there, unless somebody has named it.
    unlink("/etc/fimctl/hooks.d/10-record");
    ASSERT_EQ(rmdir("/etc/fimctl/hooks.d"), 0);
    EXPECT_EQ(fimctl({"--hooks", "/etc/fimctl/hooks.d", "freeze", "--no-quiesce", one_}).status, 1);
    EXPECT_EQ(freeze().status, 0);
}

TEST_F(Hooks, what_was_refused_before_any_step_is_told_to_no_hook) {
    add_recorder();
    EXPECT_EQ(fimctl({"mount", "7"}).status, 10);
    EXPECT_EQ(fimctl({"freeze", "/no/such/path"}).status, 2);
    EXPECT_EQ(recorded(), "");
}

TEST_F(Hooks, every_variable_is_set_in_every_phase) {
    add_hook("10-env",
             "[ $1 != post-freeze ] || env | grep -c '^FIMCTL_' >>" + std::string(record));
    ASSERT_EQ(freeze().status, 0);
    EXPECT_EQ(recorded(), std::to_string(fimctl::hook_variables().size() + 1) + "\n");
}

TEST(HookPhases, each_has_a_name_of_its_own_and_every_announcement_its_end) {
    std::string names;
    for (const fimctl::HookPhase phase : fimctl::all_hook_phases()) {
        names += std::string(fimctl::name_of(phase)) + " ";
    }
    EXPECT_EQ(names,
              "pre-freeze post-freeze pre-split post-split pre-mount post-mount pre-release "
              "post-release pre-restore post-restore failed ");
}

}  // namespace
