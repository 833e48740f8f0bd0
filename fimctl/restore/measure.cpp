#include "fimctl/restore/measure.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "fimctl/log.h"
#include "fimctl/phase.h"

namespace fimctl {
namespace {

constexpr size_t step_size = size_t{1} << 20;
constexpr size_t block_size = 4096;  // the unit in which differences are counted

// A device open for reading what it holds, not what the host has cached of it: both devices may
// have been written behind the host's back.
class Disk {
  public:
    explicit Disk(const std::string &name)
        : file_(open(name.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC)),
          buffer_(static_cast<char *>(aligned_alloc(block_size, step_size)), free) {}
    Disk(const Disk &) = delete;
    Disk &operator=(const Disk &) = delete;
    ~Disk() {
        if (file_ >= 0) close(file_);
    }

    bool good() const { return file_ >= 0 && buffer_ != nullptr; }
    // Whether all of it could be read.
    bool read_at(uint64_t offset, size_t size) {
        return pread(file_, buffer_.get(), size, static_cast<off_t>(offset)) ==
               static_cast<ssize_t>(size);
    }
    const char *data() const { return buffer_.get(); }

  private:
    int file_;
    std::unique_ptr<char, void (*)(void *)> buffer_;
};

uint64_t differing(const Disk &one, const Disk &other, size_t size) {
    uint64_t bytes = 0;
    for (size_t at = 0; at < size; at += block_size) {
        const size_t part = size - at < block_size ? size - at : block_size;
        if (memcmp(one.data() + at, other.data() + at, part) != 0) bytes += part;
    }
    return bytes;
}

std::optional<uint64_t> compare(const RestorePair &pair) {
    const std::string primary = readable_disk(pair.primary);
    const auto size = size_of_disk(primary);
    if (!size || pair.mirror.empty() || size_of_disk(pair.mirror) != size) return std::nullopt;
    Disk one(primary);
    Disk other(pair.mirror);
    if (!one.good() || !other.good()) return std::nullopt;
    uint64_t bytes = 0;
    for (uint64_t at = 0; at < *size; at += step_size) {
        stop_when_interrupted(Step::restore);
        const size_t part = *size - at < step_size ? static_cast<size_t>(*size - at) : step_size;
        if (!one.read_at(at, part) || !other.read_at(at, part)) return std::nullopt;
        bytes += differing(one, other, part);
    }
    return bytes;
}

}  // namespace

void measure(RestorePlan &plan) {
    plan.measured = true;
    // What programs have written is on its way to the primary.
    sync();
    for (RestorePair &pair : plan.pairs) {
        log::progress("compare " + pair.pair.bcv + " with " + pair.pair.device);
        pair.differs = compare(pair);
    }
}

}  // namespace fimctl
