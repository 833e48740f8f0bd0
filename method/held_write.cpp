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

// Both signals, blocked in this thread's mask alone for as long as it lives.
class HeldSignals {
  public:
    HeldSignals() {
        sigset_t both;
        sigemptyset(&both);
        sigaddset(&both, SIGXFSZ);
        sigaddset(&both, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &both, &mask_);
        sigpending(&pending_);
    }
    ~HeldSignals() { pthread_sigmask(SIG_SETMASK, &mask_, nullptr); }
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

    // Takes up what the failed write has raised. One that was pending before it has become one with
    // the write's, and stays for whoever waits for it. A signal to the thread is taken before one
    // to the process, so what somebody sent meanwhile stays too.
    void take_up(int error) const {
        const int raised = signal_of(error);
        if (raised == 0 || sigismember(&pending_, raised) == 1) return;
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, raised);
        const timespec at_once = {};
        while (sigtimedwait(&one, nullptr, &at_once) == -1 && errno == EINTR) {
        }
    }

  private:
    sigset_t mask_ = {};
    sigset_t pending_ = {};
};

}  // namespace

ssize_t held_write(int fd, const void *data, size_t size) {
    const HeldSignals held;
    const ssize_t written = write(fd, data, size);
    if (written >= 0) return written;
    const int error = errno;
    held.take_up(error);
    errno = error;
    return written;
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
