#include "host/held_write.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

namespace tessera {
namespace {

// The signal that the kernel sends to a thread whose write failed with that error; 0 for none.
int signal_of(int error) {
    if (error == EFBIG) return SIGXFSZ;
    return error == EPIPE ? SIGPIPE : 0;
}

}  // namespace

void write_line(int fd, const char *line) {
    sigset_t held, mask, pending;
    sigemptyset(&held);
    sigaddset(&held, SIGXFSZ);
    sigaddset(&held, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &held, &mask);
    sigpending(&pending);
    // There is nobody to tell when the stream itself cannot take it.
    const int raised = write(fd, line, strlen(line)) < 0 ? signal_of(errno) : 0;
    // One that was pending before stays for whoever waits for it.
    if (raised != 0 && sigismember(&pending, raised) == 0) {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, raised);
        const timespec at_once = {};
        while (sigtimedwait(&one, nullptr, &at_once) == -1 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

}  // namespace tessera
