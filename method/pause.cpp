#include "method/pause.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace tf {

void pause_for(unsigned seconds) {
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(seconds);
    // What sleep says is left is rounded to seconds, and sleeping that again would never end under
    // a signal every few milliseconds: the rest is waited for up to a point in time.
    if (sleep(seconds) == 0) return;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

}  // namespace tf
