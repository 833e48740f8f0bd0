// The private region on its device.
//
// A device changes beneath a host without the host's doing: the array clones a mirror's content
// into it. So nothing is read from, or left in, the machine's cache of the device.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "lab/common/descriptor.h"
#include "lab/qzvm/region.h"

namespace qz {
namespace {

using lab::common::Descriptor;

// What a device without a cache in between wants of addresses and lengths. Every region that is not
// unusually long is one such block, and is thus read and written in one piece.
constexpr size_t alignment = 4096;

size_t aligned(size_t size) {
    return (size + alignment - 1) / alignment * alignment;
}

struct Freer {
    void operator()(char *block) const { free(block); }
};
using Buffer = std::unique_ptr<char, Freer>;

Buffer make_buffer(size_t size) {
    Buffer buffer(static_cast<char *>(aligned_alloc(alignment, size)));
    if (buffer == nullptr) throw std::bad_alloc();
    memset(buffer.get(), 0, size);
    return buffer;
}

// Regular files stand in for devices in tests; they need not know of direct access.
Descriptor open_device(const std::string &device, int flags) {
    struct stat status = {};
    if (stat(device.c_str(), &status) != 0) fails("look at " + device);
    if (S_ISBLK(status.st_mode)) flags |= O_DIRECT;
    Descriptor opened(open(device.c_str(), flags | O_CLOEXEC));
    if (!opened.good()) fails("open " + device);
    return opened;
}

uint64_t capacity(const Descriptor &device, const std::string &name) {
    struct stat status = {};
    if (fstat(device.get(), &status) != 0) fails("look at " + name);
    if (!S_ISBLK(status.st_mode)) return static_cast<uint64_t>(status.st_size);
    uint64_t bytes = 0;
    if (ioctl(device.get(), BLKGETSIZE64, &bytes) != 0) fails("ask for the size of " + name);
    return bytes;
}

std::string read_beginning(const Descriptor &device, const std::string &name, size_t size) {
    const Buffer buffer = make_buffer(size);
    size_t done = 0;
    while (done < size) {
        const ssize_t got =
            pread(device.get(), buffer.get() + done, size - done, static_cast<off_t>(done));
        if (got < 0) fails("read " + name);
        if (got == 0) break;
        done += static_cast<size_t>(got);
    }
    return {buffer.get(), done};
}

void write_beginning(const std::string &name, const std::string &text) {
    const Descriptor device = open_device(name, O_RDWR);
    if (capacity(device, name) < region_bytes) {
        throw Error("cannot write " + name + ": it has no room for a private region" +
                    " (a mirror that is joined to its primary has none)");
    }
    const size_t size = aligned(text.size());
    const Buffer buffer = make_buffer(size);
    memcpy(buffer.get(), text.data(), text.size());
    if (pwrite(device.get(), buffer.get(), size, 0) != static_cast<ssize_t>(size)) {
        fails("write " + name);
    }
    if (fsync(device.get()) != 0) fails("write " + name + " through");
}

}  // namespace

Found read_region(const std::string &name) {
    const Descriptor device = open_device(name, O_RDONLY);
    if (capacity(device, name) < region_bytes) return {};
    Found found = parse(read_beginning(device, name, alignment));
    // One that does not fit into the first block looks cut short there.
    if (found.content == Content::damaged) {
        found = parse(read_beginning(device, name, region_bytes));
    }
    return found;
}

void write_region(const std::string &device, const Region &region) {
    write_beginning(device, to_text(region));
}

void clear_region(const std::string &device) {
    write_beginning(device, std::string(region_bytes, '\0'));
}

bool is_blank(const std::string &name) {
    const Descriptor device = open_device(name, O_RDONLY);
    const std::string text =
        read_beginning(device, name, std::min<uint64_t>(region_bytes, capacity(device, name)));
    return std::all_of(text.begin(), text.end(), [](char c) { return c == '\0'; });
}

uint64_t capacity_of(const std::string &name) {
    return capacity(open_device(name, O_RDONLY), name);
}

}  // namespace qz
