#include "lab/common/loop.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace lab::common {
namespace {

constexpr unsigned misc_major = 10, loop_control_minor = 237;
// Attempts at a free loop device: another program may take it between the question and the answer.
constexpr int attempts = 64;

[[noreturn]] void fails(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), "cannot " + what);
}

std::string make_node(const std::string &path, mode_t type, dev_t device) {
    if (mknod(path.c_str(), type | 0600, device) != 0 && errno != EEXIST) {
        fails("make node " + path);
    }
    return path;
}

unsigned free_minor(const std::string &folder) {
    const std::string node =
        make_node(folder + "/loop-control", S_IFCHR, makedev(misc_major, loop_control_minor));
    const Descriptor control(open(node.c_str(), O_RDWR | O_CLOEXEC));
    if (!control.good()) fails("open the loop control node");
    const int minor = ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (minor < 0) fails("get a free loop device");
    return static_cast<unsigned>(minor);
}

}  // namespace

std::string loop_node(const std::string &folder, unsigned minor) {
    return make_node(folder + "/loop" + std::to_string(minor), S_IFBLK, makedev(loop_major, minor));
}

AttachedLoop attach_loop(int backing, const std::string &name, const Window &window,
                         const std::string &folder) {
    struct loop_config config = {};
    config.fd = static_cast<uint32_t>(backing);
    config.info.lo_offset = window.offset;
    config.info.lo_sizelimit = window.size;
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (window.direct) config.info.lo_flags |= LO_FLAGS_DIRECT_IO;
    memcpy(config.info.lo_file_name, name.data(),
           std::min(name.size(), sizeof config.info.lo_file_name - 1));
    AttachedLoop loop;
    for (int i = 0; i < attempts; ++i) {
        loop.minor = free_minor(folder);
        loop.node = loop_node(folder, loop.minor);
        loop.device = Descriptor(open(loop.node.c_str(), O_RDWR | O_CLOEXEC));
        if (!loop.device.good()) fails("open " + loop.node);
        if (ioctl(loop.device.get(), LOOP_CONFIGURE, &config) == 0) return loop;
        if (errno != EBUSY) break;
    }
    fails("attach " + name + " to a loop device");
}

}  // namespace lab::common
