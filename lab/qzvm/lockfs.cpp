// lockfs: stops and resumes writes to a mounted file system.
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/stat.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "lab/common/descriptor.h"

namespace {

int fails(const char *what, const char *path) {
    fprintf(stderr, "lockfs: cannot %s %s: %s\n", what, path, strerror(errno));
    return 1;
}

// A folder below it would stop the whole file system, which is hardly what was meant.
bool is_mount_point(const char *path) {
    struct statx status = {};
    return statx(AT_FDCWD, path, 0, STATX_TYPE, &status) == 0 &&
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string option = argc == 3 ? argv[1] : "";
    if (option != "-w" && option != "-u") {
        fprintf(stderr,
                "usage: lockfs -w DIRECTORY   stop the writes to the file system mounted there\n"
                "       lockfs -u DIRECTORY   let them go on\n");
        return 2;
    }
    const char *path = argv[2];
    const lab::common::Descriptor folder(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.good()) return fails("open", path);
    if (!is_mount_point(path)) {
        fprintf(stderr, "lockfs: nothing is mounted on %s\n", path);
        return 1;
    }
    const bool stops = option == "-w";
    if (ioctl(folder.get(), stops ? FIFREEZE : FITHAW, 0) != 0) {
        return fails(stops ? "stop the writes to" : "resume the writes to", path);
    }
    return 0;
}
