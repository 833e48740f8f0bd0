#include "lab/array/media/loop_device.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "lab/common/loop.h"

namespace lab {
namespace {

// The kernel refuses with EAGAIN while pages of the old window are still being written.
constexpr int attempts = 64;

std::string node_of(const std::string &nodes, int minor) try {
    make_folder(nodes);
    return common::loop_node(nodes, static_cast<unsigned>(minor));
} catch (const std::system_error &error) {
    throw MediaError(code::media_failed, error.what());
}

Fd open_node(const std::string &node) {
    return Fd(open(node.c_str(), O_RDWR | O_CLOEXEC));
}

FileId id_of(const Fd &file) {
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) media_fails("look at a file of the store");
    return {status.st_dev, status.st_ino};
}

bool status_of(const Fd &device, struct loop_info64 *info) {
    *info = {};
    return device.get() >= 0 && ioctl(device.get(), LOOP_GET_STATUS64, info) == 0;
}

}  // namespace

AttachedLoops attached_loops(const std::string &nodes) {
    AttachedLoops found;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator("/sys/block", error)) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("loop") || !std::filesystem::exists(entry.path() / "loop", error)) {
            continue;
        }
        const int minor = std::stoi(name.substr(4));
        const Fd device(open(node_of(nodes, minor).c_str(), O_RDONLY | O_CLOEXEC));
        struct loop_info64 info;
        if (!status_of(device, &info)) continue;
        found[{info.lo_device, info.lo_inode}][info.lo_offset] = minor;
    }
    return found;
}

bool LoopDevice::take_over(const std::string &nodes, const AttachedLoops &known, const Fd &file,
                           uint64_t offset, uint64_t size, LoopDevice *taken) {
    const FileId id = id_of(file);
    const auto over_file = known.find(id);
    if (over_file == known.end()) return false;
    const auto at = size == 0 ? over_file->second.begin() : over_file->second.find(offset);
    if (at == over_file->second.end()) return false;
    taken->minor_ = at->second;
    taken->node_ = node_of(nodes, at->second);
    taken->fd_ = open_node(taken->node_);
    // It may have been freed, and be somebody else's, since it was seen.
    struct loop_info64 info;
    return status_of(taken->fd_, &info) && FileId(info.lo_device, info.lo_inode) == id &&
           info.lo_offset == at->first;
}

LoopDevice LoopDevice::attach(const std::string &nodes, const Fd &file, const std::string &path,
                              uint64_t offset, uint64_t size) try {
    make_folder(nodes);
    common::AttachedLoop attached =
        common::attach_loop(file.get(), path, {offset, size, false}, nodes);
    LoopDevice loop;
    loop.minor_ = static_cast<int>(attached.minor);
    loop.node_ = attached.node;
    loop.fd_ = Fd(attached.device.release());
    return loop;
} catch (const std::system_error &error) {
    throw MediaError(code::media_failed, error.what());
}

Fd LoopDevice::open_exclusively() const {
    return Fd(open(node_.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
}

void LoopDevice::move_window(uint64_t offset) {
    struct loop_info64 info = {};
    for (int i = 0; i < attempts; ++i) {
        if (ioctl(fd_.get(), LOOP_GET_STATUS64, &info) != 0) break;
        if (info.lo_offset == offset) return;
        info.lo_offset = offset;
        info.lo_flags |= LO_FLAGS_AUTOCLEAR;
        if (ioctl(fd_.get(), LOOP_SET_STATUS64, &info) == 0) return;
        if (errno != EAGAIN) break;
    }
    media_fails("change the capacity of " + node_);
}

uint64_t LoopDevice::capacity() const {
    uint64_t bytes = 0;
    if (ioctl(fd_.get(), BLKGETSIZE64, &bytes) != 0) media_fails("ask for the size of " + node_);
    return bytes;
}

void LoopDevice::flush() const {
    if (ioctl(fd_.get(), BLKFLSBUF, 0) != 0) media_fails("flush " + node_);
}

}  // namespace lab
