// How the host's programs are run. Scripts stand in for them in the test's private root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "tessera_host.h"
#include "tests/host/replaced_calls.h"
#include "tests/support/private_root.h"

namespace {

struct Program : testing::Test {
    Program() {
        Q_sys_cmd_exec_options_init(&options);
        umount_does("exit 0");
    }
    ~Program() override {
        for (const char *file : {"/tmp/out", "/tmp/err", "/tmp/seen"}) unlink(file);
        signal(SIGCHLD, SIG_DFL);
        test::replaced() = {};
    }
    // Every one of these programs runs the same way; the simplest stands for all.
    static void umount_does(const std::string &body) {
        unlink("/usr/bin/umount");
        test::write_script("/usr/bin/umount", body);
    }
    int umount() { return Q_umount("/mnt/copy", 0, &options); }
    static int open_for_writing(const char *path) {
        return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    }

    Q_sys_cmd_exec_options options;
};

void reap_everything(int) {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

void do_nothing(int) {}

TEST_F(Program, fresh_options_are_no_descriptors_and_status_0) {
    options = {5, 6, 7};
    Q_sys_cmd_exec_options_init(&options);
    EXPECT_EQ(options.out_fd, -1);
    EXPECT_EQ(options.err_fd, -1);
    EXPECT_EQ(options.exit_status, 0);
}

TEST_F(Program, exit_status_is_reported) {
    umount_does("exit 32");
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 32);
    umount_does("exit 0");
    EXPECT_EQ(umount(), 0);
    EXPECT_EQ(options.exit_status, 0);
}

TEST_F(Program, options_may_be_left_out) {
    EXPECT_EQ(Q_umount("/mnt/copy", 0, nullptr), 0);
    umount_does("exit 1");
    EXPECT_NE(Q_umount("/mnt/copy", 0, nullptr), 0);
}

TEST_F(Program, program_that_is_missing_has_status_127) {
    unlink("/usr/bin/umount");
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 127);
}

TEST_F(Program, program_ended_by_a_signal_has_128_and_its_number) {
    umount_does("kill -9 $$");
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 128 + 9);
}

TEST_F(Program, whole_environment_is_path_and_locale) {
    setenv("LD_PRELOAD", "", 1);
    setenv("SECRET", "x", 1);
    // What the shell sets for itself is not of interest.
    umount_does("tr '\\0' '\\n' </proc/$$/environ >/tmp/seen");
    setenv("PATH", "/nowhere", 1);
    EXPECT_EQ(umount(), 0);
    EXPECT_EQ(test::read_file("/tmp/seen"), "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n");
}

TEST_F(Program, arguments_pass_no_shell) {
    umount_does("printf '<%s>' \"$@\" >/tmp/seen");
    EXPECT_EQ(Q_umount("/mnt/a b;$(touch /tmp/never)'\"", 0, &options), 0);
    EXPECT_EQ(test::read_file("/tmp/seen"), "<--></mnt/a b;$(touch /tmp/never)'\">");
    EXPECT_FALSE(test::exists("/tmp/never"));
}

TEST_F(Program, streams_are_the_given_descriptors) {
    umount_does("echo to out; echo to err >&2");
    options.out_fd = open_for_writing("/tmp/out");
    options.err_fd = open_for_writing("/tmp/err");
    EXPECT_EQ(umount(), 0);
    // They belong to the caller and are still open.
    EXPECT_EQ(close(options.out_fd), 0);
    EXPECT_EQ(close(options.err_fd), 0);
    EXPECT_EQ(test::read_file("/tmp/out"), "to out\n");
    EXPECT_EQ(test::read_file("/tmp/err"), "to err\n");
}

TEST_F(Program, streams_without_descriptors_are_the_null_device) {
    umount_does("for n in 0 1 2; do readlink /proc/$$/fd/$n; done >/tmp/seen");
    EXPECT_EQ(umount(), 0);
    // The redirection of the loop stands in place of 1 while it runs.
    EXPECT_EQ(test::read_file("/tmp/seen"), "/dev/null\n/tmp/seen\n/dev/null\n");
}

TEST_F(Program, one_descriptor_may_serve_both_streams) {
    umount_does("echo to out; echo to err >&2");
    options.out_fd = options.err_fd = open_for_writing("/tmp/out");
    EXPECT_EQ(umount(), 0);
    close(options.out_fd);
    EXPECT_EQ(test::read_file("/tmp/out"), "to out\nto err\n");
}

TEST_F(Program, streams_may_be_given_crosswise) {
    umount_does("echo to out; echo to err >&2");
    const int first = open_for_writing("/tmp/out"), second = open_for_writing("/tmp/err");
    const int own_out = dup(1), own_err = dup(2);
    dup2(first, 2);
    dup2(second, 1);
    options.out_fd = 2;
    options.err_fd = 1;
    const int result = umount();
    dup2(own_out, 1);
    dup2(own_err, 2);
    for (const int fd : {first, second, own_out, own_err}) close(fd);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(test::read_file("/tmp/out"), "to out\n");
    EXPECT_EQ(test::read_file("/tmp/err"), "to err\n");
}

TEST_F(Program, descriptor_that_is_not_open_runs_nothing) {
    umount_does("touch /tmp/seen");
    options.out_fd = 900;
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 127);
    Q_sys_cmd_exec_options_init(&options);
    options.err_fd = 900;
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 127);
    EXPECT_FALSE(test::exists("/tmp/seen"));
}

TEST_F(Program, error_descriptor_that_is_not_open_runs_nothing) {
    umount_does("touch /tmp/seen");
    options.err_fd = 900;
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 127);
    EXPECT_FALSE(test::exists("/tmp/seen"));
}

TEST_F(Program, null_device_is_read_by_the_input_and_written_by_the_others) {
    umount_does(
        "exec 3>/tmp/seen\n"
        "for n in 0 1 2; do sed -n 's/^flags:.*\\(.\\)$/\\1/p' /proc/$$/fdinfo/$n >&3; done");
    EXPECT_EQ(umount(), 0);
    EXPECT_EQ(test::read_file("/tmp/seen"), "0\n1\n1\n");
}

TEST_F(Program, no_other_descriptor_is_inherited) {
    constexpr int kept = 77;
    ASSERT_EQ(dup2(0, kept), kept);  // without close-on-exec
    umount_does("ls /proc/$$/fd >/tmp/seen");
    EXPECT_EQ(umount(), 0);
    close(kept);
    EXPECT_EQ(test::read_file("/tmp/seen").find("77\n"), std::string::npos);
}

TEST_F(Program, status_is_not_lost_when_the_process_ignores_its_children) {
    umount_does("exit 3");
    signal(SIGCHLD, SIG_IGN);
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 3);
    struct sigaction now = {};
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
}

TEST_F(Program, status_is_not_lost_when_the_process_wants_no_ended_children) {
    umount_does("exit 3");
    struct sigaction wanted = {};
    wanted.sa_handler = do_nothing;
    wanted.sa_flags = SA_NOCLDWAIT;
    sigaction(SIGCHLD, &wanted, nullptr);
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 3);
    struct sigaction now = {};
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_handler, do_nothing);
    EXPECT_NE(now.sa_flags & SA_NOCLDWAIT, 0);
}

TEST_F(Program, status_is_not_lost_when_a_handler_reaps_every_child) {
    umount_does("exit 3");
    signal(SIGCHLD, reap_everything);
    // It ends long before anybody waits for it.
    test::replaced().before_waiting = [] { usleep(50'000); };
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 3);
    struct sigaction now = {};
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_handler, reap_everything);
}

TEST_F(Program, program_itself_starts_with_ordinary_signals) {
    umount_does("exec grep -E '^Sig(Blk|Ign)' /proc/self/status >/tmp/seen");
    signal(SIGCHLD, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    sigset_t blocked, old;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &old);
    EXPECT_EQ(umount(), 0);
    sigprocmask(SIG_SETMASK, &old, nullptr);
    signal(SIGPIPE, SIG_DFL);
    const std::string seen = test::read_file("/tmp/seen");
    unsigned long block = 1, ignore = 1;
    EXPECT_EQ(sscanf(seen.c_str(), "SigBlk:\t%lx\nSigIgn:\t%lx", &block, &ignore), 2) << seen;
    EXPECT_EQ(block, 0UL);
    EXPECT_EQ(ignore & (1UL << (SIGCHLD - 1)), 0UL);
    EXPECT_EQ(ignore & (1UL << (SIGPIPE - 1)), 0UL);
}

TEST_F(Program, interrupted_wait_goes_on) {
    umount_does("sleep 0.3; exit 4");
    struct sigaction quiet = {};
    quiet.sa_handler = do_nothing;  // without SA_RESTART
    sigaction(SIGALRM, &quiet, nullptr);
    const itimerval often = {{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_NE(umount(), 0);
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_EQ(options.exit_status, 4);
}

TEST_F(Program, unknown_flags_and_missing_names_are_refused) {
    umount_does("touch /tmp/seen");
    EXPECT_NE(Q_umount("/mnt/copy", 1, &options), 0);
    EXPECT_NE(Q_umount("", 0, &options), 0);
    EXPECT_NE(Q_umount(nullptr, 0, &options), 0);
    EXPECT_EQ(options.exit_status, 1);
    EXPECT_FALSE(test::exists("/tmp/seen"));
}

TEST_F(Program, that_cannot_be_waited_for_has_status_127) {
    umount_does("exit 4");
    test::replaced().failing = "waitpid";
    EXPECT_NE(umount(), 0);
    EXPECT_EQ(options.exit_status, 127);
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

// Half prepared it would write into other streams than those that were given, or run with signals
// that it cannot work with.
TEST_F(Program, is_not_run_when_a_step_of_its_preparation_fails) {
    umount_does("touch /tmp/seen");
    const int fd = open_for_writing("/tmp/out");
    const struct {
        const char *call;
        int n;
        int fd;
    } steps[] = {
        {"posix_spawnattr_setsigmask", 1, -1},
        {"posix_spawnattr_setsigdefault", 1, -1},
        {"posix_spawnattr_setflags", 1, -1},
        {"posix_spawn_file_actions_addopen", 1, -1},
        {"posix_spawn_file_actions_addopen", 2, -1},
        {"posix_spawn_file_actions_addopen", 3, -1},
        {"posix_spawn_file_actions_adddup2", 1, fd},
        {"posix_spawn_file_actions_adddup2", 2, fd},
        {"posix_spawn_file_actions_addclosefrom_np", 1, -1},
    };
    for (const auto &step : steps) {
        test::replaced().failing = step.call;
        test::replaced().failing_call = step.n;
        options = {step.fd, step.fd, 0};
        EXPECT_NE(umount(), 0) << step.call << " " << step.n;
        EXPECT_EQ(options.exit_status, 127) << step.call << " " << step.n;
        EXPECT_EQ(test::replaced().failing_call, 0) << step.call << " " << step.n;
    }
    close(fd);
    EXPECT_FALSE(test::exists("/tmp/seen"));
}

// Whoever waits for it with the signal held back, in a loop of events say, must find it.
TEST_F(Program, signal_of_a_child_that_is_held_back_is_still_there_afterwards) {
    sigset_t one, mask, pending;
    sigemptyset(&one);
    sigaddset(&one, SIGCHLD);
    sigprocmask(SIG_BLOCK, &one, &mask);
    raise(SIGCHLD);
    EXPECT_EQ(umount(), 0);
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGCHLD), 1);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
}

TEST_F(Program, signals_that_the_process_holds_back_are_the_same_afterwards) {
    sigset_t before, after;
    sigprocmask(SIG_BLOCK, nullptr, &before);
    EXPECT_EQ(umount(), 0);
    sigprocmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    }
}

}  // namespace
