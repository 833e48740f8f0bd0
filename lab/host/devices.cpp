#include "lab/host/devices.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace tflab {
namespace {

struct Node {
    const char *name;
    unsigned major_number, minor_number;
};

constexpr Node nodes[] = {{"null", 1, 3},   {"zero", 1, 5},    {"full", 1, 7},
                          {"random", 1, 8}, {"urandom", 1, 9}, {"tty", 5, 0}};

}  // namespace

void fill_devices(const fs::path &dev) {
    const mode_t umask_before = umask(0);
    for (const Node &node : nodes) {
        if (mknod((dev / node.name).c_str(), S_IFCHR | 0666,
                  makedev(node.major_number, node.minor_number)) != 0) {
            fails("make node " + (dev / node.name).string());
        }
    }
    umask(umask_before);
    fs::create_symlink("/proc/self/fd", dev / "fd");
    fs::create_symlink("/proc/self/fd/0", dev / "stdin");
    fs::create_symlink("/proc/self/fd/1", dev / "stdout");
    fs::create_symlink("/proc/self/fd/2", dev / "stderr");
    fs::create_symlink("pts/ptmx", dev / "ptmx");
    make_folder(dev / "pts");
    make_folder(dev / "shm");
    fs::permissions(dev / "shm", fs::perms::all | fs::perms::sticky_bit);
}

}  // namespace tflab
