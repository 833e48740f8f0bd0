#include "lab/host/loops.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdlib>

namespace tflab {
namespace {

constexpr unsigned loop_major = 7, misc_major = 10, loop_control_minor = 237;
constexpr int attempts = 64;

fs::path folder_of(int number) {
    return "/sys/block/loop" + std::to_string(number);
}

std::string file_of(int number) {
    std::string file = read_text(folder_of(number) / "loop/backing_file");
    while (!file.empty() && file.back() == '\n') file.pop_back();
    return file;
}

uint64_t sequence_of(int number) {
    return strtoull(read_text(folder_of(number) / "diskseq").c_str(), nullptr, 10);
}

void make_node(const fs::path &path, mode_t type, dev_t device) {
    if (mknod(path.c_str(), type | 0600, device) != 0 && errno != EEXIST) {
        fails("make node " + path.string());
    }
}

// The kernel names a file by its path in its own namespace, and the paths of all worlds are the
// same. So the file of that name here has to be the very one.
bool is_over(int number, const std::string &file, const fs::path &nodes) {
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) return false;
    const fs::path node = nodes / ("loop" + std::to_string(number));
    make_node(node, S_IFBLK, makedev(loop_major, static_cast<unsigned>(number)));
    const Fd device(open(node.c_str(), O_RDONLY | O_CLOEXEC));
    loop_info64 info = {};
    return device.get() >= 0 && ioctl(device.get(), LOOP_GET_STATUS64, &info) == 0 &&
           info.lo_inode == status.st_ino && info.lo_device == status.st_dev;
}

}  // namespace

std::vector<Loop> loops_below(const fs::path &folder, const fs::path &nodes) {
    std::vector<Loop> found;
    for (const auto &entry : fs::directory_iterator("/sys/block")) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("loop")) continue;
        const int number = atoi(name.c_str() + 4);
        const std::string file = file_of(number);
        if (file.starts_with(folder.string() + "/") && is_over(number, file, nodes)) {
            found.push_back({number, sequence_of(number), file});
        }
    }
    return found;
}

bool is_attached(const Loop &loop) {
    return !file_of(loop.number).empty() && sequence_of(loop.number) == loop.sequence;
}

Fd attach_loop(const fs::path &file, const fs::path &nodes, fs::path *node) {
    const Fd backing = open_file(file, O_RDWR);
    make_node(nodes / "loop-control", S_IFCHR, makedev(misc_major, loop_control_minor));
    const Fd control = open_file(nodes / "loop-control", O_RDWR);
    loop_config config = {};
    config.fd = static_cast<uint32_t>(backing.get());
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    for (int i = 0; i < attempts; ++i) {
        const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) fails("get a free loop device");
        *node = nodes / ("loop" + std::to_string(number));
        make_node(*node, S_IFBLK, makedev(loop_major, static_cast<unsigned>(number)));
        Fd device = open_file(*node, O_RDWR);
        if (ioctl(device.get(), LOOP_CONFIGURE, &config) == 0) return device;
        // Another program took it between the question and the answer.
        if (errno != EBUSY) break;
    }
    fails("attach " + file.string() + " to a loop device");
}

}  // namespace tflab
