// The row "kill points": the program that kills, and what follows a kill.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "proof/kill_points/recovery.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using proof::Process;
using proof::Recovery;
using proof::recovery_of;
using proof::Scenario;
using proof::Words;

class Killer : public testing::Test {
  protected:
    Killer() {
        std::string name = "/tmp/killer.XXXXXX";
        folder_ = mkdtemp(name.data());
    }
    ~Killer() override { fs::remove_all(folder_); }

    // Runs a line of the shell under tfkill; NAME in options is the folder.
    int killed(const std::string &options, const std::string &line) const {
        const int status = system((TF_BINARY_DIR "/bin/tfkill " + options + " " + folder_ +
                                   "/report sh -c '" + line + "' 2>/dev/null")
                                      .c_str());
        return WEXITSTATUS(status);
    }
    bool there(const std::string &name) const { return fs::exists(folder_ + "/" + name); }
    std::string report() const {
        std::ifstream in(folder_ + "/report");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string folder_;
};

TEST_F(Killer, records_what_changes_something_in_its_order) {
    EXPECT_EQ(killed("", "cd " + folder_ + "; read line <report; : >one; : >>two; exit 5"), 5);
    EXPECT_EQ(report(), "sh: open+create one\nsh: open+create two\n");
}

TEST_F(Killer, kills_before_the_call_is_made) {
    const std::string one = folder_ + "/one";
    EXPECT_EQ(killed("--at \"sh: open+create " + one + "\" --when before", ": >" + one), 137);
    EXPECT_FALSE(there("one"));
    EXPECT_TRUE(report().ends_with("\nmet\n"));
}

TEST_F(Killer, kills_after_the_call_was_made_and_before_the_next_one) {
    const std::string one = folder_ + "/one", two = folder_ + "/two";
    EXPECT_EQ(
        killed("--at \"sh: open+create " + one + "\" --when after", ": >" + one + "; : >" + two),
        137);
    EXPECT_TRUE(there("one"));
    EXPECT_FALSE(there("two"));
}

TEST_F(Killer, counts_the_calls_of_one_name) {
    const std::string one = folder_ + "/one", two = folder_ + "/two";
    const std::string line = ": >" + one + "; : >" + one + "; : >" + two + "; : >" + one;
    const std::string at = "--at \"sh: open+create " + one + "\" --when before --call ";
    EXPECT_EQ(killed(at + "2", line), 137);
    EXPECT_FALSE(there("two"));
    EXPECT_EQ(killed(at + "3", line), 137);
    EXPECT_TRUE(there("two"));
    EXPECT_EQ(killed(at + "4", line), 0);
    EXPECT_FALSE(report().ends_with("met\n"));
}

TEST_F(Killer, leaves_alone_what_the_killed_process_has_started) {
    const std::string one = folder_ + "/one";
    const std::string line = "sh -c \"sleep 0.3; : >" + one + "\"; true";
    EXPECT_EQ(killed("--at \"sh: start a process\" --when before", line), 137);
    std::this_thread::sleep_for(600ms);
    EXPECT_FALSE(there("one"));
    EXPECT_EQ(killed("--at \"sh: start a process\" --when after", line), 137);
    for (int i = 0; i < 500 && !there("one"); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_TRUE(there("one"));
}

// A process of each kind, of two objects.
Scenario scenario() {
    const Process freeze = {
        "freeze",
        "client1",
        {"write"},
        {"freeze", "-",      "/a",         "/copy/a",    "or_give_up", "object",
         "1",      "freeze", "plexname=x", "/b",         "/copy/b",    "ctl",
         "4",      "commit", "object",     "0",          "ckpt",       "/exchange/0",
         "object", "1",      "ckpt",       "/exchange/1"},
        {},
        {}};
    const Process volumes = {"volumes",
                             "backup1",
                             {"mkdir"},
                             {"rebuild", "/exchange/0", "object", "1", "rebuild", "/exchange/1",
                              "volumes", "ckpt", "/exchange/1.up"},
                             {},
                             {}};
    const Process release = {"release", "client1", {}, {"rebuild", "/exchange/0", "thaw"},
                             {},        {"mend"}};
    return {"one", "small", {"client1", "backup1"}, {}, {freeze, volumes, release}, {}, {}};
}

TEST(Recovery, of_a_freeze_without_all_texts_lets_the_objects_go_and_begins_anew) {
    const Recovery recovery = recovery_of(scenario(), 0, {});
    ASSERT_EQ(recovery.first.size(), 1U);
    EXPECT_EQ(recovery.first[0].steps, (Words{"object",      "0",
                                              "freeze",      "sync_at_start=1",
                                              "/a",          "/copy/a",
                                              "object",      "1",
                                              "freeze",      "plexname=x,sync_at_start=1",
                                              "/b",          "/copy/b",
                                              "ctl",         "4",
                                              "object",      "0",
                                              "thaw",        "object",
                                              "1",           "thaw",
                                              "object",      "0",
                                              "thaw_commit", "object",
                                              "1",           "thaw_commit"}));
    EXPECT_EQ(recovery.next, 0U);
    EXPECT_FALSE(recovery.prepared);
}

TEST(Recovery, of_a_freeze_with_all_texts_goes_on_with_the_next_process) {
    proof::Left left;
    left.texts_kept = true;
    const Recovery recovery = recovery_of(scenario(), 0, left);
    EXPECT_TRUE(recovery.first.empty());
    EXPECT_EQ(recovery.next, 1U);
}

TEST(Recovery, of_a_mount_takes_it_down_on_its_host_and_mounts_again) {
    const Recovery recovery = recovery_of(scenario(), 1, {});
    ASSERT_EQ(recovery.first.size(), 1U);
    EXPECT_EQ(recovery.first[0].host, "backup1");
    EXPECT_EQ(recovery.first[0].steps,
              (Words{"object", "0", "rebuild", "/exchange/0.taken_down", "object", "1", "rebuild",
                     "/exchange/1.taken_down", "object", "0", "thaw", "object", "1", "thaw"}));
    EXPECT_EQ(recovery.next, 1U);
    EXPECT_TRUE(recovery.prepared);
}

TEST(Recovery, of_a_copy_that_is_shown_once_shows_it_where_it_is_or_ends_it) {
    proof::Left left;
    left.shown_once = true;
    Recovery recovery = recovery_of(scenario(), 1, left);
    EXPECT_TRUE(recovery.first.empty());
    EXPECT_EQ(recovery.before.size(), 1U);
    EXPECT_EQ(recovery.next, 1U);
    left.gives_up = true;
    recovery = recovery_of(scenario(), 1, left);
    ASSERT_EQ(recovery.first.size(), 1U);
    EXPECT_EQ(recovery.first[0].steps.back(), "thaw_commit");
    EXPECT_EQ(recovery.next, 3U);
}

TEST(Recovery, of_a_release_repeats_it_once_the_host_is_mended) {
    const Recovery recovery = recovery_of(scenario(), 2, {});
    EXPECT_EQ(recovery.before, Words{"mend"});
    EXPECT_TRUE(recovery.first.empty());
    EXPECT_EQ(recovery.next, 2U);
    EXPECT_TRUE(recovery.prepared);
}

}  // namespace
