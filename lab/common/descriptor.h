// An owner of a file descriptor, and what a process has open.
#pragma once

#include <unistd.h>

#include <utility>
#include <vector>

namespace lab::common {

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return fd_; }
    bool good() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

  private:
    int fd_ = -1;
};

// For a process that outlives its caller: closes all descriptors but these, and puts the null
// device in the place of 0 to 2.
void keep_only(std::vector<int> kept);

}  // namespace lab::common
