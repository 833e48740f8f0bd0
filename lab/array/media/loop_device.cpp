#include "lab/array/media/loop_device.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace lab {
namespace {

constexpr unsigned misc_major = 10, loop_control_minor = 237;
// Attempts at a free loop device: another program may take it between the question and the answer.
constexpr int attempts = 64;

std::string make_node(const std::string &path, mode_t type, dev_t device) {
    make_folders_above(path);
    if (mknod(path.c_str(), type | 0600, device) != 0 && errno != EEXIST) {
        media_fails("make node " + path);
    }
    return path;
}

std::string node_of(const std::string &nodes, int minor) {
    return make_node(nodes + "/loop" + std::to_string(minor), S_IFBLK,
                     makedev(loop_major, static_cast<unsigned>(minor)));
}

Fd open_node(const std::string &node) {
    return Fd(open(node.c_str(), O_RDWR | O_CLOEXEC));
}

int free_minor(const std::string &nodes) {
    const Fd control(
        open(make_node(nodes + "/loop-control", S_IFCHR, makedev(misc_major, loop_control_minor))
                 .c_str(),
             O_RDWR | O_CLOEXEC));
    if (control.get() < 0) media_fails("open the loop control node");
    const int minor = ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (minor < 0) media_fails("get a free loop device");
    return minor;
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

bool configure(const Fd &device, const Fd &file, const std::string &path, uint64_t offset,
               uint64_t size) {
    struct loop_config config = {};
    config.fd = static_cast<uint32_t>(file.get());
    config.info.lo_offset = offset;
    config.info.lo_sizelimit = size;
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    const size_t length = std::min(path.size(), sizeof config.info.lo_file_name - 1);
    memcpy(config.info.lo_file_name, path.data(), length);
    return ioctl(device.get(), LOOP_CONFIGURE, &config) == 0;
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
                              uint64_t offset, uint64_t size) {
    LoopDevice loop;
    for (int i = 0; i < attempts; ++i) {
        loop.minor_ = free_minor(nodes);
        loop.node_ = node_of(nodes, loop.minor_);
        loop.fd_ = open_node(loop.node_);
        if (loop.fd_.get() < 0) media_fails("open " + loop.node_);
        if (configure(loop.fd_, file, path, offset, size)) return loop;
        if (errno != EBUSY) media_fails("attach " + path);
    }
    media_fails("get a loop device for " + path);
}

Fd LoopDevice::open_exclusively() const {
    return Fd(open(node_.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
}

void LoopDevice::move_window(uint64_t offset) {
    struct loop_info64 info = {};
    // The kernel refuses with EAGAIN while pages of the old window are still being written.
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
