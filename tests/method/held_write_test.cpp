#include "method/held_write.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

constexpr char path[] = "/tmp/written";

sigset_t only(int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    return set;
}

bool is_pending(int signal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

bool is_held(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

// A pipe that nobody reads, and a file that may not grow beyond 4 bytes. Both signals have their
// standard action: without the hold every one of these writes ends the process.
class HeldWrite : public testing::Test {
  protected:
    HeldWrite() {
        signal(SIGPIPE, SIG_DFL);
        signal(SIGXFSZ, SIG_DFL);
        if (pipe2(pipe_, O_CLOEXEC) != 0) abort();
        close(pipe_[0]);
        file_ = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        getrlimit(RLIMIT_FSIZE, &limit_);
        const rlimit small = {4, limit_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
    }
    ~HeldWrite() override {
        setrlimit(RLIMIT_FSIZE, &limit_);
        close(pipe_[1]);
        close(file_);
        unlink(path);
    }

    int closed_pipe() const { return pipe_[1]; }
    int small_file() const { return file_; }

  private:
    int pipe_[2] = {-1, -1};
    int file_ = -1;
    rlimit limit_ = {};
};

TEST_F(HeldWrite, closed_pipe_is_an_error) {
    EXPECT_EQ(tf::held_write(closed_pipe(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_FALSE(is_pending(SIGPIPE));
    EXPECT_FALSE(is_held(SIGPIPE));
}

TEST_F(HeldWrite, file_size_limit_is_an_error) {
    EXPECT_EQ(tf::held_write(small_file(), "1234", 4), 4);
    EXPECT_EQ(tf::held_write(small_file(), "5", 1), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_FALSE(is_pending(SIGXFSZ));
    EXPECT_FALSE(is_held(SIGXFSZ));
    EXPECT_EQ(test::read_file(path), "1234");
}

TEST_F(HeldWrite, signals_that_the_host_holds_itself_stay_held) {
    const sigset_t both = [] {
        sigset_t set = only(SIGPIPE);
        sigaddset(&set, SIGXFSZ);
        return set;
    }();
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, &both, &mask);
    EXPECT_EQ(tf::held_write(closed_pipe(), "x", 1), -1);
    EXPECT_EQ(tf::held_write(small_file(), "12345", 5), 4);
    EXPECT_EQ(tf::held_write(small_file(), "6", 1), -1);
    EXPECT_TRUE(is_held(SIGPIPE));
    EXPECT_TRUE(is_held(SIGXFSZ));
    EXPECT_FALSE(is_pending(SIGPIPE));
    EXPECT_FALSE(is_pending(SIGXFSZ));
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

TEST_F(HeldWrite, a_signal_that_was_pending_before_still_comes) {
    const sigset_t one = only(SIGPIPE);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, &one, &mask);
    ASSERT_EQ(raise(SIGPIPE), 0);
    EXPECT_EQ(tf::held_write(closed_pipe(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_TRUE(is_pending(SIGPIPE));
    const timespec at_once = {};
    EXPECT_EQ(sigtimedwait(&one, nullptr, &at_once), SIGPIPE);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

int seen_pipes;
void count_pipe(int) {
    ++seen_pipes;
}

TEST_F(HeldWrite, a_handler_of_the_host_stays_and_is_not_called) {
    struct sigaction action = {};
    action.sa_handler = count_pipe;
    action.sa_flags = SA_NODEFER;
    sigaction(SIGPIPE, &action, nullptr);
    seen_pipes = 0;
    EXPECT_EQ(tf::held_write(closed_pipe(), "x", 1), -1);
    EXPECT_EQ(seen_pipes, 0);
    struct sigaction now = {};
    sigaction(SIGPIPE, nullptr, &now);
    EXPECT_EQ(now.sa_handler, count_pipe);
    EXPECT_TRUE((now.sa_flags & SA_NODEFER) != 0);
    signal(SIGPIPE, SIG_DFL);
}

// It reaches the process while the write fails. The write's own went to the thread.
TEST_F(HeldWrite, a_signal_from_elsewhere_comes_once_and_is_not_taken_for_the_writes) {
    signal(SIGPIPE, count_pipe);
    seen_pipes = 0;
    test::on_write([] { kill(getpid(), SIGPIPE); });
    EXPECT_EQ(tf::held_write(closed_pipe(), "x", 1), -1);
    test::on_write(nullptr);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(seen_pipes, 1);
    signal(SIGPIPE, SIG_DFL);
}

TEST_F(HeldWrite, a_signal_that_comes_while_a_write_succeeds_is_not_taken_up) {
    signal(SIGXFSZ, count_pipe);
    seen_pipes = 0;
    test::on_write([] { kill(getpid(), SIGXFSZ); });
    EXPECT_EQ(tf::held_write(small_file(), "x", 1), 1);
    test::on_write(nullptr);
    EXPECT_EQ(seen_pipes, 1);
    signal(SIGXFSZ, SIG_DFL);
}

TEST_F(HeldWrite, an_error_without_a_signal_takes_none_up) {
    const sigset_t one = only(SIGPIPE);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, &one, &mask);
    EXPECT_EQ(tf::held_write(-1, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

TEST_F(HeldWrite, all_is_written_in_as_many_pieces_as_it_takes) {
    {
        const test::SystemFault fault("write", 1, EINTR);
        EXPECT_TRUE(tf::write_all(small_file(), "12", 2));
    }
    EXPECT_EQ(test::read_file(path), "12");
    // Two bytes fit, the third does not.
    EXPECT_FALSE(tf::write_all(small_file(), "345", 3));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(test::read_file(path), "1234");
    EXPECT_TRUE(tf::write_all(small_file(), "", 0));
}

TEST_F(HeldWrite, what_a_write_did_not_take_is_written_next) {
    {
        const test::SystemFault short_write("write", 1, 0, 3);
        EXPECT_TRUE(tf::write_all(small_file(), "hello", 5));
    }
    // The first three are the fault's.
    EXPECT_EQ(test::read_file(path), "lo");
}

TEST_F(HeldWrite, a_write_that_takes_nothing_fails_instead_of_being_tried_for_ever) {
    const test::SystemFault fault("write", 1, 0, 0);
    EXPECT_FALSE(tf::write_all(small_file(), "12", 2));
}

TEST_F(HeldWrite, an_interrupted_take_up_goes_on) {
    const test::SystemFault fault("sigtimedwait", 1, EINTR);
    EXPECT_EQ(tf::held_write(closed_pipe(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_FALSE(is_pending(SIGPIPE));
}

// Somebody else may have taken the signal first.
TEST_F(HeldWrite, a_signal_that_cannot_be_taken_up_is_not_waited_for) {
    seen_pipes = 0;
    signal(SIGPIPE, count_pipe);
    const test::SystemFault fault("sigtimedwait", 1, EAGAIN);
    EXPECT_EQ(tf::held_write(closed_pipe(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(seen_pipes, 1);
    signal(SIGPIPE, SIG_DFL);
}

}  // namespace
