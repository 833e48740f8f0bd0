// Small owners and helpers for files, with the reason in every error.
#pragma once

#include <string>
#include <utility>

#include "lab/array/media/media.h"

namespace lab {

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd &operator=(Fd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Fd();
    int get() const { return fd_; }

  private:
    int fd_ = -1;
};

// MediaError(media_failed) with the text of errno.
[[noreturn]] void media_fails(const std::string &what);

// Opens for reading and writing and makes the file when it is not there.
Fd open_file(const std::string &path);
// Grows a file to `size` bytes; a larger one stays as it is.
void grow(const Fd &file, uint64_t size);
void make_folder(const std::string &path);
void make_folders_above(const std::string &path);

}  // namespace lab
