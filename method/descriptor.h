// Owners of descriptors and streams: closed at the end of the scope.
#pragma once

#include <unistd.h>

#include <cstdio>

namespace tf {

class DescriptorOwner {
  public:
    explicit DescriptorOwner(int fd = -1) : fd_(fd) {}
    ~DescriptorOwner() { reset(); }
    DescriptorOwner(const DescriptorOwner &) = delete;
    DescriptorOwner &operator=(const DescriptorOwner &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int *out() { return &fd_; }  // for functions that hand a descriptor out through a pointer
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};

class StreamOwner {
  public:
    explicit StreamOwner(FILE *stream = nullptr) : stream_(stream) {}
    ~StreamOwner() {
        if (stream_ != nullptr) fclose(stream_);
    }
    StreamOwner(const StreamOwner &) = delete;
    StreamOwner &operator=(const StreamOwner &) = delete;

    FILE *get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }

  private:
    FILE *stream_;
};

}  // namespace tf
