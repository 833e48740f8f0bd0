// Owners of what this library takes from the system: given back at the end of their scope.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace tessera {

// A block of malloc's heap.
template <class T>
class Heap {
  public:
    explicit Heap(T *block = nullptr) : block_(block) {}
    ~Heap() { free(block_); }
    Heap(const Heap &) = delete;
    Heap &operator=(const Heap &) = delete;
    T *get() const { return block_; }
    T **out() { return &block_; }  // for functions that hand a block out through a pointer
    explicit operator bool() const { return block_ != nullptr; }

  private:
    T *block_;
};

// An open stream.
class Stream {
  public:
    explicit Stream(FILE *stream) : stream_(stream) {}
    ~Stream() {
        if (stream_ != nullptr) fclose(stream_);
    }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    FILE *get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }

  private:
    FILE *stream_;
};

// A descriptor; -1 is none.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

}  // namespace tessera
