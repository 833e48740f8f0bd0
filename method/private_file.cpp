#include "method/private_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "method/descriptor.h"

namespace tf {
namespace {

constexpr mode_t private_mode = 0600;

// The descriptor as it is, or a copy of it above the standard streams.
int above_standard_streams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const DescriptorOwner low(fd);
    return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

}  // namespace

int open_file(const char *path, int flags, mode_t mode) {
    const int opened = open(path, flags | O_CLOEXEC, mode);
    const int fd = above_standard_streams(opened);
    // A file that nobody gets a descriptor of is not left behind.
    if (opened >= 0 && fd < 0 && (flags & O_EXCL) != 0) {
        const int error = errno;
        unlink(path);
        errno = error;
    }
    return fd;
}

int create_private(const char *path) {
    return open_file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, private_mode);
}

bool create_private_file(const char *path) {
    return static_cast<bool>(DescriptorOwner(create_private(path)));
}

bool is_own_plain_file(const struct stat &status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

// A file that cannot be looked at is removed all the same: most likely it is the method's own, and
// unlink takes no folder and follows no link. So is a file that a tool has put in its place, or
// that belongs to another user by now: with it only its name goes.
void remove_private_file(const char *path) {
    if (path == nullptr) return;
    struct stat status = {};
    if (lstat(path, &status) == 0 && !S_ISREG(status.st_mode)) return;
    unlink(path);
}

}  // namespace tf
