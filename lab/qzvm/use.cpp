#include "lab/qzvm/use.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "lab/common/loop.h"
#include "lab/qzvm/state.h"

namespace qz {
namespace {

namespace fs = std::filesystem;
using lab::common::Descriptor;
using namespace std::chrono_literals;

constexpr auto patience = 20s;

dev_t device_of(const Attachment &loop) {
    return makedev(lab::common::loop_major, loop.minor);
}

// The kernel's table writes a blank as \040.
std::string unescaped(const std::string &field) {
    std::string text;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            text += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

std::string mounted_on(const Attachment &loop) {
    std::ostringstream wanted;
    wanted << lab::common::loop_major << ':' << loop.minor;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, folder;
        fields >> id >> parent >> device >> root >> folder;
        if (device == wanted.str()) return unescaped(folder);
    }
    return "";
}

bool has_open(const fs::path &process, dev_t device) {
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(process / "fd", error)) {
        struct stat status = {};
        if (stat(entry.path().c_str(), &status) == 0 && S_ISBLK(status.st_mode) &&
            status.st_rdev == device) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string node_of(const Attachment &loop) {
    return lab::common::loop_node(place::nodes, loop.minor);
}

Attachment attachment_of(int device, unsigned minor) {
    Attachment loop = {minor, 0};
    if (ioctl(device, BLKGETDISKSEQ, &loop.sequence) != 0) fails("identify a loop device");
    return loop;
}

bool is_attached(const Attachment &loop) {
    const Descriptor device(open(node_of(loop).c_str(), O_RDONLY | O_CLOEXEC));
    struct loop_info64 info = {};
    uint64_t sequence = 0;
    return device.good() && ioctl(device.get(), LOOP_GET_STATUS64, &info) == 0 &&
           ioctl(device.get(), BLKGETDISKSEQ, &sequence) == 0 && sequence == loop.sequence;
}

std::string open_in(const Attachment &loop, pid_t holder) {
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const pid_t pid = std::stoi(name);
        if (pid == getpid() || pid == holder) continue;
        if (!has_open(entry.path(), device_of(loop))) continue;
        std::ifstream in(entry.path() / "comm");
        std::string program;
        std::getline(in, program);
        return "open in process " + name + " (" + program + ")";
    }
    return "";
}

std::string use_of(const Attachment &loop, pid_t holder) {
    if (const std::string folder = mounted_on(loop); !folder.empty()) {
        return "mounted on " + folder;
    }
    if (std::string process = open_in(loop, holder); !process.empty()) return process;
    return take_exclusively(loop).good() ? "" : "in use";
}

Descriptor take_exclusively(const Attachment &loop) {
    Descriptor device(open(node_of(loop).c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    if (!device.good() && errno != EBUSY) fails("open " + node_of(loop));
    return device;
}

void wait_until_free(const Attachment &loop) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (is_attached(loop)) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw Error("loop device " + std::to_string(loop.minor) +
                        " is still attached; somebody has it open");
        }
        std::this_thread::sleep_for(1ms);
    }
}

}  // namespace qz
