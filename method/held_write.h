// Writing that cannot end the host.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstddef>

namespace tf {

// write, but a file-size limit and a closed pipe are errors (EFBIG, EPIPE) and nothing else: the
// signal that comes with them is held back from this thread and taken up. What the process has set
// for its signals stays as it is, and no signal from elsewhere is lost.
ssize_t held_write(int fd, const void *data, size_t size);

// Holds both signals back from this thread for as long as it lives. For writes that follow each
// other; nobody else's code may run below it.
class HeldSignals {
  public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

    // Takes up what the write that gave this result has raised. Returns the result; errno stays.
    ssize_t settle(ssize_t written) const;

  private:
    sigset_t mask_ = {};
    sigset_t pending_ = {};
};

// The same below signals that are held already.
ssize_t held_write(const HeldSignals &held, int fd, const void *data, size_t size);

// Writes all of it, in as many pieces as the system takes. Returns whether that worked; errno says
// why not.
bool write_all(int fd, const char *data, size_t size);

}  // namespace tf
