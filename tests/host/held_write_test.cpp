// A line of a refused command goes where the program's own would have gone. The host's caller chose
// that descriptor, and what is wrong with it must not end the process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "tessera_host.h"
#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

class RefusedCommand : public testing::Test {
  protected:
    RefusedCommand() {
        Q_sys_cmd_exec_options_init(&options);
        signal(SIGPIPE, SIG_DFL);
        signal(SIGXFSZ, SIG_DFL);
    }
    ~RefusedCommand() override { close(options.err_fd); }

    // A pipe that nobody reads.
    void give_closed_pipe() {
        int ends[2] = {-1, -1};
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        close(ends[0]);
        options.err_fd = ends[1];
    }
    void expect_refused() {
        EXPECT_NE(Q_umount("", 0, &options), 0);
        EXPECT_EQ(options.exit_status, 1);
    }
    static bool is_pending(int signal) {
        sigset_t pending;
        sigpending(&pending);
        return sigismember(&pending, signal) == 1;
    }

    Q_sys_cmd_exec_options options;
};

int seen;
void count(int) {
    ++seen;
}

TEST_F(RefusedCommand, closed_pipe_costs_the_line_alone) {
    give_closed_pipe();
    expect_refused();
    EXPECT_FALSE(is_pending(SIGPIPE));
}

TEST_F(RefusedCommand, file_size_limit_costs_the_line_alone) {
    options.err_fd = open("/tmp/full", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
    expect_refused();
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_FALSE(is_pending(SIGXFSZ));
    unlink("/tmp/full");
}

TEST_F(RefusedCommand, signal_that_was_pending_before_still_comes) {
    give_closed_pipe();
    sigset_t one, mask;
    sigemptyset(&one);
    sigaddset(&one, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &one, &mask);
    raise(SIGPIPE);
    expect_refused();
    EXPECT_TRUE(is_pending(SIGPIPE));
    signal(SIGPIPE, SIG_IGN);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    signal(SIGPIPE, SIG_DFL);
}

TEST_F(RefusedCommand, signal_from_elsewhere_comes_once) {
    give_closed_pipe();
    signal(SIGPIPE, count);
    seen = 0;
    test::on_write([] { kill(getpid(), SIGPIPE); });
    expect_refused();
    test::on_write(nullptr);
    EXPECT_EQ(seen, 1);
    signal(SIGPIPE, SIG_DFL);
}

TEST_F(RefusedCommand, stream_that_cannot_be_written_costs_the_line_alone) {
    options.err_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    expect_refused();
}

TEST_F(RefusedCommand, interrupted_take_up_of_the_signal_goes_on) {
    give_closed_pipe();
    const test::SystemFault fault("sigtimedwait", 1, EINTR);
    expect_refused();
    EXPECT_FALSE(is_pending(SIGPIPE));
}

// Somebody else may have taken the signal first.
TEST_F(RefusedCommand, signal_that_cannot_be_taken_up_is_not_waited_for) {
    seen = 0;
    signal(SIGPIPE, count);
    give_closed_pipe();
    const test::SystemFault fault("sigtimedwait", 1, EAGAIN);
    expect_refused();
    EXPECT_EQ(seen, 1);
    signal(SIGPIPE, SIG_DFL);
}

}  // namespace
