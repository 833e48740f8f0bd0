// The command as a user and a script meet it: exit codes, clean streams, the catalogue's files.
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "fimctl/command.h"
#include "fimctl/failure.h"
#include "fimctl/paths.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using test::Ended;

class CommandLine : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "00B1");
    }
    // Everything that is written to it meets a full disk.
    static std::string full_device() {
        const char *name = "/dev/full";
        if (!test::exists(name)) mknod(name, S_IFCHR | 0666, makedev(1, 7));
        return name;
    }
    Ended freeze() { return fimctl({"freeze", "--no-quiesce", one_}); }

    std::string one_;
};

TEST_F(CommandLine, help_is_no_failure_and_names_the_exit_codes) {
    const Ended ended = fimctl({"--help"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.out.find("11 owned by another process"), std::string::npos);
}

TEST_F(CommandLine, what_cannot_be_understood_ends_with_2) {
    EXPECT_EQ(fimctl({}).status, 2);
    EXPECT_EQ(fimctl({"thaw"}).status, 2);
    EXPECT_EQ(fimctl({"freeze"}).status, 2);
    EXPECT_EQ(fimctl({"mount", "one"}).status, 2);
    EXPECT_EQ(fimctl({"run", one_}).status, 2);
    EXPECT_EQ(fimctl({"freeze", one_, "--", "true"}).status, 2);
    EXPECT_EQ(fimctl({"freeze", "--freeze-deadline", "0", one_}).status, 2);
    EXPECT_TRUE(story().empty());
}

TEST_F(CommandLine, a_command_that_does_not_exist_is_named) {
    const Ended ended = fimctl({"bogus"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("bogus"), std::string::npos) << ended.err;
}

TEST_F(CommandLine, every_step_and_every_way_to_end_says_what_to_do_next) {
    using fimctl::ExitCode;
    for (int step = 0; step <= static_cast<int>(fimctl::Step::thaw_commit); ++step) {
        for (const ExitCode code : {ExitCode::left, ExitCode::no_such_snapshot, ExitCode::owned,
                                    ExitCode::array, ExitCode::permission, ExitCode::interrupted}) {
            EXPECT_NE(fimctl::remedy_of(static_cast<fimctl::Step>(step), code, 1), "") << step;
        }
    }
    using fimctl::Step;
    for (const Step step :
         {Step::load, Step::freeze, Step::control, Step::commit, Step::judge, Step::quiesce,
          Step::volumes, Step::catalogue, Step::states, Step::checkpoint, Step::command}) {
        EXPECT_NE(fimctl::remedy_of(step, ExitCode::failed, 1), "") << fimctl::name_of(step);
    }
}

TEST_F(CommandLine, a_number_that_is_no_snapshot_ends_with_10) {
    for (const char *command : {"mount", "release", "show"}) {
        EXPECT_EQ(fimctl({command, "7"}).status, 10) << command;
    }
    EXPECT_FALSE(test::exists(state_)) << "asking makes no catalogue";
    EXPECT_EQ(freeze().status, 0);
    EXPECT_EQ(fimctl({"show", "7"}).status, 10);
}

TEST_F(CommandLine, a_missing_array_library_ends_with_12_before_anything_is_begun) {
    unlink(fimctl::path::array_library);
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 12);
    EXPECT_NE(ended.err.find("cannot load the array library"), std::string::npos);
    EXPECT_EQ(fimctl({"list", "--all"}).out, "no snapshots\n");
}

TEST_F(CommandLine, an_array_that_does_not_answer_ends_with_12) {
    array_fails("SymInitV", 520);
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 12);
    EXPECT_NE(ended.err.find("the array does not answer: code 520 (scripted)"), std::string::npos)
        << ended.err;
    EXPECT_TRUE(story().empty());
}

TEST_F(CommandLine, without_an_array_database_no_session_is_tried_before_the_method_makes_it) {
    unlink(fimctl::path::array_database);
    array_fails("SymInitV", 520);
    script("freeze 1 fail 3 init_tflib: SymAPI call to SymInit failed with code 11 (x)");
    const Ended ended = freeze();
    EXPECT_EQ(ended.status, 12) << "the method's own message tells it";
    EXPECT_EQ(story(), "freeze");
}

TEST_F(CommandLine, the_methods_session_error_ends_with_12) {
    script("freeze 1 fail 12 emc_tf__SymInit: Failed - SymVersion = 1280, Error = 1 (x).");
    EXPECT_EQ(freeze().status, 12);
}

TEST_F(CommandLine, a_missing_method_ends_with_1_and_says_how_to_name_it) {
    const Ended ended = fimctl({"--method", "/no/method.so", "freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("--method"), std::string::npos);
}

TEST_F(CommandLine, a_library_that_is_no_method_names_the_entry_point_it_lacks) {
    const Ended ended = fimctl({"--method", FAKE_SYMAPI, "freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("the method lacks the entry point TimeFinder_init"), std::string::npos)
        << ended.err;
}

TEST_F(CommandLine, only_root_may_work_on_snapshots) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (setuid(12345) != 0) _exit(99);
        _exit(fimctl({"freeze", one_}).status);
    }
    EXPECT_EQ(finish(pid).status, test::is_real_root() ? 13 : 99);
}

TEST_F(CommandLine, the_state_folder_and_the_catalogue_are_roots_alone) {
    umask(0);
    ASSERT_EQ(freeze().status, 0);
    struct stat status = {};
    ASSERT_EQ(stat("/var/lib/fimctl", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    ASSERT_EQ(stat("/var/lib/fimctl/catalogue.db", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(CommandLine, another_folder_that_is_open_to_others_is_refused_not_changed) {
    test::make_folders("/shared");
    chmod("/shared", 0755);
    const Ended ended = fimctl({"--state", "/shared", "freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("chmod 700 /shared"), std::string::npos) << ended.err;
    struct stat status = {};
    ASSERT_EQ(stat("/shared", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
}

TEST_F(CommandLine, a_full_disk_ends_before_the_array_is_touched) {
    test::make_folders("/full");
    ASSERT_EQ(mount("tmpfs", "/full", "tmpfs", 0, "size=4k,mode=0700"), 0);
    mounted_.push_back("/full");
    const Ended ended = fimctl({"--state", "/full", "freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 1) << ended.err;
    EXPECT_TRUE(story().empty());
}

TEST_F(CommandLine, a_disk_that_is_full_when_the_text_is_to_be_kept_rolls_the_copy_back) {
    test::make_folders("/small");
    ASSERT_EQ(mount("tmpfs", "/small", "tmpfs", 0, "size=256k,mode=0700"), 0);
    mounted_.push_back("/small");
    test::make_folders("/var/fake/big");
    test::write_file("/var/fake/big/filler", std::string(1 << 20, 'x'));
    script("ckpt 2 copy /var/fake/big /small");
    const Ended ended = fimctl({"--state", "/small", "freeze", "--no-quiesce", one_});
    EXPECT_EQ(ended.status, 3) << ended.err;
    EXPECT_EQ(story(), "freeze ctl ckpt freeze_commit ckpt thaw thaw_commit");
    EXPECT_NE(ended.err.find("step \"keep the catalogue\" failed: the catalogue: database or disk "
                             "is full"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("then: rolled back"), std::string::npos) << ended.err;
    EXPECT_EQ(array_state("00A1"), 2);
    unlink("/small/filler");
    EXPECT_NE(fimctl({"--state", "/small", "list"}).out.find("cutting"), std::string::npos);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"--state", "/small", "release", "1"}).status, 0);
}

TEST_F(CommandLine, a_result_that_cannot_be_written_leaves_something_and_says_so) {
    out_to_ = full_device();
    Ended ended = freeze();
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find("snapshot 1 was taken; its number could not be written: No space left "
                             "on device"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("next: fimctl show 1 tells about it, fimctl release 1 ends it"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(1).state, fimctl::State::frozen);
    ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find("snapshot 1 is mounted; where could not be written: No space left"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(1).state, fimctl::State::mounted);
}

TEST_F(CommandLine, a_listing_that_cannot_be_written_fails_with_the_reason) {
    ASSERT_EQ(freeze().status, 0);
    out_to_ = full_device();
    for (const char *command : {"list", "doctor", "config", "locks", "orphans"}) {
        const Ended ended = fimctl({command});
        EXPECT_EQ(ended.status, 1) << command;
        EXPECT_NE(ended.err.find("standard output cannot be written: No space left on device\n"),
                  std::string::npos)
            << command << ": " << ended.err;
    }
    EXPECT_EQ(fimctl({"show", "1"}).status, 1);
}

TEST_F(CommandLine, a_log_file_that_takes_nothing_is_told_once_and_stops_nothing) {
    const Ended ended = fimctl({"--log", full_device(), "run", "--no-quiesce", one_, "--", "true"});
    EXPECT_EQ(ended.status, 0);
    const std::string warning =
        "fimctl: the log file /dev/full cannot be written: No space left on device\n";
    const size_t at = ended.err.find(warning);
    ASSERT_NE(at, std::string::npos) << ended.err;
    EXPECT_EQ(ended.err.find("cannot be written", at + warning.size()), std::string::npos);
}

TEST_F(CommandLine, freeze_prints_the_number_and_nothing_else_on_standard_output) {
    EXPECT_EQ(freeze().out, "1\n");
}

TEST_F(CommandLine, quiet_tells_failures_only) {
    EXPECT_EQ(fimctl({"-q", "freeze", "--no-quiesce", one_}).err, "");
    EXPECT_NE(fimctl({"-q", "mount", "9"}).err, "");
}

TEST_F(CommandLine, the_methods_lines_are_shown_at_the_level_that_was_asked_for) {
    script("freeze 1 log Executing command: x");
    const Ended ended = fimctl({"-vv", "freeze", "--no-quiesce", one_});
    EXPECT_NE(ended.err.find("fimctl: method: Executing command: x\n"), std::string::npos);
    const auto made = calls();
    bool level = false;
    for (const std::string &call : made) level = level || call == "set_logf 2";
    EXPECT_TRUE(level);
}

TEST_F(CommandLine, the_log_file_holds_the_methods_lines_and_the_progress) {
    script("freeze 1 log Split started ...");
    ASSERT_EQ(fimctl({"--log", "/var/fim.log", "freeze", "--no-quiesce", one_}).status, 0);
    const std::string text = test::read_file("/var/fim.log");
    EXPECT_NE(text.find("Split started ..."), std::string::npos);
    EXPECT_NE(text.find("snapshot 1: freeze commit"), std::string::npos);
    struct stat status = {};
    ASSERT_EQ(stat("/var/fim.log", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(CommandLine, list_shows_what_is_not_over_and_all_of_it_when_asked) {
    EXPECT_EQ(fimctl({"list"}).out, "no snapshots\n");
    ASSERT_EQ(freeze().status, 0);
    const Ended ended = fimctl({"list"});
    EXPECT_NE(ended.out.find("   1  frozen     good  "), std::string::npos) << ended.out;
    EXPECT_NE(ended.out.find(one_), std::string::npos);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(fimctl({"list"}).out, "no snapshots\n");
    EXPECT_NE(fimctl({"list", "--all"}).out.find("released"), std::string::npos);
}

TEST_F(CommandLine, list_and_show_write_one_json_document) {
    EXPECT_EQ(nlohmann::json::parse(fimctl({"list", "--json"}).out), nlohmann::json::array());
    ASSERT_EQ(freeze().status, 0);
    const auto list = nlohmann::json::parse(fimctl({"list", "--json"}).out);
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0]["id"], 1);
    EXPECT_EQ(list[0]["state"], "frozen");
    EXPECT_EQ(list[0]["sources"][0], one_);
    const auto show = nlohmann::json::parse(fimctl({"show", "1", "--json"}).out);
    const auto &pair = show["objects"][0]["pairs"][0];
    EXPECT_EQ(pair["array"], "000184500123");
    EXPECT_EQ(pair["device"], "00A1");
    EXPECT_EQ(pair["bcv"], "00B1");
    EXPECT_EQ(pair["state_before"], 2);
    EXPECT_EQ(pair["state_after"], 5);
    EXPECT_EQ(pair["state_now"], 5);
    EXPECT_EQ(show["objects"][0]["checkpoint"], snapshot(1).objects[0].text);
}

TEST_F(CommandLine, show_without_the_array_says_so_and_shows_the_rest) {
    ASSERT_EQ(freeze().status, 0);
    array_fails("SymInitV", 5);
    const Ended ended = fimctl({"show", "1"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.err.find("the array does not answer"), std::string::npos);
    EXPECT_NE(ended.out.find("before synchronised, after split, now unknown"), std::string::npos)
        << ended.out;
}

TEST_F(CommandLine, show_on_a_host_without_an_array_database_does_not_ask_the_array) {
    ASSERT_EQ(freeze().status, 0);
    unlink(fimctl::path::array_database);
    const Ended ended = fimctl({"show", "1"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.err.find("this host has no array database yet"), std::string::npos);
    EXPECT_EQ(ended.err.find("does not answer"), std::string::npos) << ended.err;
}

TEST_F(CommandLine, a_path_that_is_no_utf_8_is_kept_to_the_byte_and_listed) {
    const std::string odd = one_ + "/\xff\xfe";
    test::make_folders(odd);
    add_object(odd, 3, "000184500123", "00A3", "00B3");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", odd}).status, 0);
    EXPECT_EQ(snapshot(1).objects[0].source, odd);
    EXPECT_NE(snapshot(1).objects[0].text.find("HDEF-fs_path=" + odd + "\n"), std::string::npos);
    EXPECT_EQ(fimctl({"list", "--json"}).status, 0);
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(CommandLine, what_does_not_fit_the_state_of_a_snapshot_is_refused) {
    ASSERT_EQ(freeze().status, 0);
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    const Ended twice = fimctl({"mount", "1"});
    EXPECT_EQ(twice.status, 2);
    EXPECT_NE(twice.err.find("snapshot 1 cannot be mounted: it is mounted"), std::string::npos);
    EXPECT_NE(twice.err.find("next: its copy was unmounted by others"), std::string::npos)
        << twice.err;
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    const Ended again = fimctl({"release", "1"});
    EXPECT_EQ(again.status, 2);
    EXPECT_NE(again.err.find("snapshot 1 is over: it is released"), std::string::npos);
    EXPECT_NE(again.err.find("next: nothing is left to do"), std::string::npos) << again.err;
}

TEST_F(CommandLine, a_catalogue_of_a_later_version_is_left_alone) {
    ASSERT_EQ(freeze().status, 0);
    {
        std::string bytes = test::read_file("/var/lib/fimctl/catalogue.db");
        bytes[63] = 9;  // the user version in the file's header
        test::write_file("/var/lib/fimctl/catalogue.db", bytes, 0600);
    }
    const Ended ended = fimctl({"list"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("the catalogue has version 9"), std::string::npos) << ended.err;
}

TEST(Command, every_argument_with_a_place_is_repeated_for_each_copy) {
    const std::vector<std::string> made =
        fimctl::with_copies({"tar", "--dir={}", "-c", "{}", "x"}, {"/a", "/b"});
    EXPECT_EQ(made,
              (std::vector<std::string>{"tar", "--dir=/a", "--dir=/b", "-c", "/a", "/b", "x"}));
    EXPECT_EQ(fimctl::with_copies({"{}:{}"}, {"/a"}), (std::vector<std::string>{"/a:/a"}));
}

TEST(Command, a_program_is_found_by_name_or_path) {
    EXPECT_TRUE(fimctl::can_be_run("sh"));
    EXPECT_TRUE(fimctl::can_be_run("/bin/sh"));
    EXPECT_FALSE(fimctl::can_be_run("/etc/passwd"));
    EXPECT_FALSE(fimctl::can_be_run("no-such-program"));
}

}  // namespace
