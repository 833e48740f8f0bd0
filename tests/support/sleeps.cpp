#include "tests/support/sleeps.h"

#include <utility>

extern "C" unsigned __wrap_sleep(unsigned seconds);

namespace test {
namespace {
std::function<void(unsigned)> sleep_action;
unsigned left_of_next = 0;
}  // namespace

std::vector<unsigned> &sleeps() {
    static std::vector<unsigned> all;
    return all;
}

void on_sleep(std::function<void(unsigned)> action) {
    sleep_action = std::move(action);
}

void interrupt_next_sleep(unsigned left) {
    left_of_next = left;
}

}  // namespace test

unsigned __wrap_sleep(unsigned seconds) {
    test::sleeps().push_back(seconds);
    if (test::sleep_action) test::sleep_action(seconds);
    return std::exchange(test::left_of_next, 0U);
}
