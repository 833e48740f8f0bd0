#include "method/held_write.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace tf {
namespace {

// The signal that the kernel sends to a thread whose write failed with that error; 0 for none.
int signal_of(int error) {
    if (error == EFBIG) return SIGXFSZ;
    return error == EPIPE ? SIGPIPE : 0;
}

// One that was pending before the write has become one with the write's, and stays for whoever
// waits for it. A signal to the thread is taken before one to the process, so what somebody sent
// meanwhile stays too.
void take_up(int raised, const sigset_t &pending) {
    if (raised == 0 || sigismember(&pending, raised) == 1) return;
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, raised);
    const timespec at_once = {};
    while (sigtimedwait(&one, nullptr, &at_once) == -1 && errno == EINTR) {
    }
}

}  // namespace

HeldSignals::HeldSignals() {
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGXFSZ);
    sigaddset(&both, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &both, &mask_);
    sigpending(&pending_);
}

HeldSignals::~HeldSignals() {
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
}

ssize_t HeldSignals::settle(ssize_t written) const {
    if (written >= 0) return written;
    const int error = errno;
    take_up(signal_of(error), pending_);
    errno = error;
    return written;
}

ssize_t held_write(int fd, const void *data, size_t size) {
    const HeldSignals held;
    return held.settle(write(fd, data, size));
}

ssize_t held_write(const HeldSignals &held, int fd, const void *data, size_t size) {
    return held.settle(write(fd, data, size));
}

bool write_all(int fd, const char *data, size_t size) {
    while (size > 0) {
        const ssize_t written = held_write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        // One that takes nothing and names no error would be tried for ever.
        if (written <= 0) return false;
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace tf
