// Worlds begin, end, and leave nothing.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lab/host/loops.h"
#include "tests/lab_host/lab.h"

namespace {

using namespace std::chrono_literals;
using test::shell;

bool within(std::chrono::milliseconds patience, const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::string text_of(const std::string &file) {
    std::ifstream in(file);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<tflab::Loop> loops_in(const std::string &listing) {
    std::vector<tflab::Loop> loops;
    std::istringstream in(listing);
    for (tflab::Loop loop; in >> loop.number >> loop.sequence >> loop.file;) loops.push_back(loop);
    return loops;
}

// The processes of this machine whose command line holds a text.
std::vector<pid_t> processes_with(const std::string &text) {
    std::vector<pid_t> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        if (text_of(entry.path() / "cmdline").find(text) != std::string::npos) {
            found.push_back(std::stoi(name));
        }
    }
    return found;
}

// Whether a process has ended; its parent may not have waited for it yet.
bool is_over(pid_t pid) {
    if (pid <= 1) return false;
    const std::string status = text_of("/proc/" + std::to_string(pid) + "/stat");
    const size_t name_end = status.rfind(')');
    return name_end == std::string::npos || status.compare(name_end, 3, ") Z") == 0;
}

struct World : testing::Test {
    void SetUp() override { SKIP_WITHOUT_ROOT(); }
    test::Scratch scratch;
};

TEST_F(World, status_is_that_of_its_command_needs_root) {
    EXPECT_EQ(shell("tflab run --bare -- sh -c 'exit 7'").status, 7);
    EXPECT_EQ(shell("tflab run --bare -- true").status, 0);
    EXPECT_EQ(shell("tflab run --bare -- sh -c 'kill -9 $$'").status, 128 + 9);
}

TEST_F(World, failure_of_the_lab_has_a_status_of_its_own_needs_root) {
    EXPECT_EQ(shell("tflab run --bare").status, 125);
    EXPECT_EQ(shell("tflab run --bare -- /no/such/program").status, 125);
    EXPECT_EQ(shell("tflab run --scenario no-such -- true").status, 125);
    EXPECT_EQ(shell("tflab host list").status, 125);
}

TEST_F(World, command_keeps_its_own_options_and_standard_input_needs_root) {
    EXPECT_EQ(
        shell("echo in | tflab run --bare -- sh -c 'cat; echo \"$1\" \"$2\"' x --bare -- 2>&1 "
              "| grep -v 'not built'")
            .output,
        "in\n--bare --\n");
}

// A host's commands would be at work on the machine's own files.
TEST_F(World, is_not_started_behind_a_chroot_needs_root) {
    const auto outcome = shell(
        "exec unshare --mount --propagation private sh -c 'mount --rbind / /mnt &&"
        " chroot /mnt " TF_BINARY_DIR "/bin/tflab run --bare -- echo started'");
    EXPECT_EQ(outcome.status, 125);
    EXPECT_EQ(outcome.output, "tflab: a world cannot be started behind a chroot\n");
}

TEST_F(World, processes_of_the_machine_are_out_of_sight_needs_root) {
    // The first process, and the shell that counts.
    EXPECT_EQ(shell("tflab run --bare -- sh -c 'set -- /proc/[0-9]*; echo $#' | tail -1").output,
              "2\n");
}

TEST_F(World, mounts_and_files_of_a_world_are_never_seen_outside_needs_root) {
    const std::string before = shell("ls -a /run /dev").output;
    const std::string table = text_of("/proc/self/mountinfo");
    shell(
        "tflab run --host client1 -- sh -c 'ls -a /run /dev; mkdir /run/x; mknod /dev/x b 7 99; "
        "ls -a " +
        (scratch / "") + "'");
    EXPECT_EQ(shell("ls -a /run /dev").output, before);
    EXPECT_EQ(text_of("/proc/self/mountinfo"), table);
}

TEST_F(World, ordinary_end_leaves_no_loop_device_needs_root) {
    const std::string listing = scratch / "loops";
    ASSERT_EQ(
        shell("tflab run --scenario demo --host client1 -- sh -c 'tflab loops >" + listing + "'")
            .status,
        0);
    const auto loops = loops_in(text_of(listing));
    // The store, a primary and a BCV.
    ASSERT_EQ(loops.size(), 3U) << text_of(listing);
    for (const tflab::Loop &loop : loops) EXPECT_FALSE(tflab::is_attached(loop)) << loop.file;
}

TEST_F(World, another_world_s_loop_devices_are_not_its_own_needs_root) {
    // The files of both have the same paths, each in its own namespace.
    const auto outcome = shell(
        "tflab run --scenario demo -- sh -c 'tflab loops; tflab run --scenario small -- sh -c "
        "\"tflab loops; echo inner\"; tflab loops; echo outer'");
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    std::istringstream lines(outcome.output);
    std::vector<std::string> before, inner, after;
    for (std::string line; std::getline(lines, line);) {
        if (line == "inner" || line == "outer") continue;
        const size_t seen = before.size() + inner.size() + after.size();
        (seen < 3 ? before : seen < 8 ? inner : after).push_back(line);
    }
    // Store, primary and BCV; and store, two primaries, two BCVs.
    EXPECT_EQ(before.size(), 3U) << outcome.output;
    EXPECT_EQ(inner.size(), 5U) << outcome.output;
    EXPECT_EQ(after, before) << outcome.output;
    for (const std::string &line : inner) {
        EXPECT_EQ(std::count(before.begin(), before.end(), line), 0) << line;
    }
}

TEST_F(World, end_does_not_wait_for_what_the_command_left_running_needs_root) {
    const std::string mark = "1000" + std::to_string(getpid());
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(shell("tflab run --bare --host client1 -- sh -c 'sleep " + mark + " & setsid sleep " +
                    mark + " & tflab exec client1 -- sh -c \"sleep " + mark + " &\"' >/dev/null")
                  .status,
              0);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 10s);
    EXPECT_TRUE(within(
        5s, [&mark] { return processes_with("sleep" + std::string(1, '\0') + mark).empty(); }));
}

// Ends a process that the case has started. A number that was never set must not reach kill(),
// for which -1 is every process of the machine.
void end(pid_t pid, int number) {
    ASSERT_GT(pid, 1);
    kill(pid, number);
}

// A world that is in full use: hosts, mounts on array devices, a program that writes.
struct KilledWorld : World {
    // Starts it and waits until everything runs; tells the outer process.
    void start(const std::string &how = "") {
        const std::string line =
            "exec tflab run --scenario demo --host client1 --pid-file " + (scratch / "pid") +
            " -- sh -c '" +
            "tflab exec client1 -- sh -c \"mkfs.ext4 -q /dev/qz/dmp/p0; mkdir /data; "
            "mount /dev/qz/dmp/p0 /data; tfwriter write /data/busy --witness /exchange/w &\"; "
            "tflab loops >" +
            (scratch / "loops") + "; touch " + (scratch / "ready") + "; sleep 600'";
        outer = fork();
        if (outer == 0) {
            setenv("PATH", (TF_BINARY_DIR "/bin:" + std::string(getenv("PATH"))).c_str(), 1);
            const std::string whole = how.empty() ? line : how + " sh -c \"$LINE\"; sleep 600";
            setenv("LINE", line.c_str(), 1);
            execl("/bin/sh", "sh", "-c", whole.c_str(), nullptr);
            _exit(1);
        }
        ASSERT_TRUE(within(30s, [this] { return std::filesystem::exists(scratch / "ready"); }));
        loops = loops_in(text_of(scratch / "loops"));
        ASSERT_EQ(loops.size(), 3U);
        for (const tflab::Loop &loop : loops) ASSERT_TRUE(tflab::is_attached(loop));
        first = std::stoi(text_of(scratch / "pid"));
    }
    void expect_nothing_left() {
        EXPECT_TRUE(within(10s, [this] { return is_over(first); })) << "process " << first;
        EXPECT_TRUE(within(10s, [] { return processes_with("/exchange/w").empty(); }));
        for (const tflab::Loop &loop : loops) {
            EXPECT_TRUE(within(10s, [&loop] { return !tflab::is_attached(loop); }))
                << "/dev/loop" << loop.number << " over " << loop.file;
        }
    }
    // Whatever a case came to, its world does not outlive it.
    void TearDown() override {
        if (outer > 1 && waitpid(outer, nullptr, WNOHANG) == 0) {
            kill(outer, SIGKILL);
            waitpid(outer, nullptr, 0);
        }
    }
    pid_t outer = 0, first = 0;
    std::vector<tflab::Loop> loops;
};

TEST_F(KilledWorld, kill_9_of_the_outer_process_leaves_nothing_needs_root) {
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string table = text_of("/proc/self/mountinfo");
    EXPECT_EQ(table.find("tflab"), std::string::npos);
    end(outer, SIGKILL);
    waitpid(outer, nullptr, 0);
    expect_nothing_left();
    EXPECT_EQ(text_of("/proc/self/mountinfo"), table);
}

TEST_F(KilledWorld, kill_9_of_whoever_started_it_leaves_nothing_needs_root) {
    ASSERT_NO_FATAL_FAILURE(start("nice -n 0"));
    end(outer, SIGKILL);
    waitpid(outer, nullptr, 0);
    expect_nothing_left();
}

TEST_F(KilledWorld, kill_9_of_the_world_s_first_process_leaves_nothing_needs_root) {
    ASSERT_NO_FATAL_FAILURE(start());
    end(first, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(outer, &status, 0), outer);
    EXPECT_NE(status, 0);
    expect_nothing_left();
}

TEST_F(KilledWorld, kill_9_of_the_array_leaves_the_world_to_its_command_needs_root) {
    ASSERT_NO_FATAL_FAILURE(start());
    const auto daemons = processes_with("--ready-fd");
    ASSERT_FALSE(daemons.empty());
    for (const pid_t daemon : daemons) {
        const std::string space = "/proc/" + std::to_string(daemon) + "/ns/pid";
        const std::string own = "/proc/" + std::to_string(first) + "/ns/pid";
        if (std::filesystem::equivalent(space, own)) end(daemon, SIGKILL);
    }
    ASSERT_GT(first, 1);
    EXPECT_EQ(kill(first, 0), 0);
    end(outer, SIGTERM);
    waitpid(outer, nullptr, 0);
    expect_nothing_left();
}

}  // namespace
