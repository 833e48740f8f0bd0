#include "fimctl/signals.h"

#include <poll.h>

#include <csignal>
#include <initializer_list>

namespace fimctl::signals {
namespace {

volatile sig_atomic_t first = 0;
volatile sig_atomic_t seen = 0;
volatile sig_atomic_t sent = 0;

void note(int number, siginfo_t *information, void *) {
    if (first == 0) {
        first = number;
        sent = information->si_code <= 0 ? 1 : 0;
    }
    seen = seen + 1;
}

}  // namespace

void install() {
    struct sigaction action = {};
    action.sa_sigaction = note;
    action.sa_flags = SA_SIGINFO;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int raised() {
    return first;
}

int count() {
    return seen;
}

bool from_process() {
    return sent != 0;
}

void wait_a_second() {
    poll(nullptr, 0, 1000);
}

void ignore() {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, SIG_IGN);
}

void reset() {
    first = 0;
    seen = 0;
    sent = 0;
}

}  // namespace fimctl::signals
