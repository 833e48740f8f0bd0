// A pause lasts, whatever the framework's signals do.
#include "method/pause.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <vector>

#include "tests/support/sleeps.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

volatile sig_atomic_t signals = 0;

void count_signal(int) {
    signals = signals + 1;
}

TEST(Pause, asks_for_its_seconds_once) {
    tf::pause_for(10);
    EXPECT_EQ(test::sleeps(), std::vector<unsigned>{10});
}

// A framework's children end while the array splits, and its handler runs for each of them.
TEST(Pause, goes_on_to_its_end_under_a_signal_every_few_milliseconds) {
    struct sigaction action = {};
    action.sa_handler = count_signal;  // without SA_RESTART, although no sleep is restarted anyway
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto begin = steady_clock::now();
    test::interrupt_next_sleep(1);
    tf::pause_for(1);
    const auto taken = steady_clock::now() - begin;
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_GE(taken, seconds(1));
    EXPECT_GT(signals, 1);
    EXPECT_EQ(test::sleeps(), std::vector<unsigned>{1});
}

}  // namespace
