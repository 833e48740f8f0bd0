#include "tests/support/sleeps.h"

#include <utility>

extern "C" unsigned __wrap_sleep(unsigned seconds);

namespace test {
namespace {
std::function<void(unsigned)> sleep_action;
}

std::vector<unsigned> &sleeps() {
    static std::vector<unsigned> all;
    return all;
}

void on_sleep(std::function<void(unsigned)> action) {
    sleep_action = std::move(action);
}

}  // namespace test

unsigned __wrap_sleep(unsigned seconds) {
    test::sleeps().push_back(seconds);
    if (test::sleep_action) test::sleep_action(seconds);
    return 0;
}
