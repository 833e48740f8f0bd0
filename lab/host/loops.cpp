#include "lab/host/loops.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cstdlib>

#include "lab/common/loop.h"

namespace tflab {
namespace {

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

// The kernel names a file by its path in its own namespace, and the paths of all worlds are the
// same. So the file of that name here has to be the very one.
bool is_over(int number, const std::string &file, const fs::path &nodes) {
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) return false;
    const std::string node = lab::common::loop_node(nodes, static_cast<unsigned>(number));
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
    lab::common::AttachedLoop loop = lab::common::attach_loop(backing.get(), "", {}, nodes);
    *node = loop.node;
    return Fd(loop.device.release());
}

}  // namespace tflab
