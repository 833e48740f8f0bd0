// Stopping and resuming writes to a mounted file system.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "snap/shell_word.h"
#include "snap/snap_internal.h"

int32_t qz_fd = -1;

namespace snap {
timespec freeze_asked, freeze_done;
}

namespace {

using snap::diagnose;

// The file system's freeze and thaw requests, and the seconds after which it thaws by itself: a
// caller that keeps the descriptor has minutes for a whole batch, a single snapshot only seconds.
constexpr unsigned long QZ_FREEZE = 0x564f4c64;
constexpr unsigned long QZ_THAW = 0x564f4c65;
constexpr unsigned long lock_fs_seconds = 300;
constexpr unsigned long locksnap_seconds = 5;

int open_directory(const char *path) {
    return open(path, O_RDONLY | O_CLOEXEC);
}

// The status of lockfs on a path, which is one word for the shell whatever it holds.
int run_lockfs(const char *command, const char *path) {
    const snap::ShellWord word(path);
    if (!word.lost()) return system_cmd(command, word.text());
    diagnose("system command %s %s failed errno=%d\n", command, path, ENOMEM);
    return -1;
}

// A command that ran and failed still counts as success: lockfs fails for a file system that is
// locked already, and a backup that did this before would otherwise stop. Only a command that could
// not be run at all is a failure.
int run_ufs_command(const char *command, const char *path) {
    if (run_lockfs(command, path) >= 0) return 0;
    diagnose("exec of command %s failed", command);
    return -1;
}

int lock_qzfs(const char *path) {
    const int fd = open_directory(path);
    if (fd < 0) {
        diagnose("open of %s failed, errno %d", path, errno);
        return -1;
    }
    if (ioctl(fd, QZ_FREEZE, lock_fs_seconds) >= 0) return fd;
    diagnose("QZ_FREEZE of %s failed errno %d", path, errno);
    close(fd);
    return -1;
}

int unlock_qzfs(const char *path, int fd) {
    if (fd < 0) {
        diagnose("invalid file descriptor %d", fd);
        return -1;
    }
    int result = 0;
    if (ioctl(fd, QZ_THAW, 0UL) < 0) {
        diagnose("QZ_THAW of %s failed, errno %d", path, errno);
        result = -1;
    }
    if (close(fd) != 0) {
        diagnose("close of %s failed, errno %d", path, errno);
        result = -1;
    }
    return result;
}

void close_frozen() {
    if (qz_fd >= 0) close(qz_fd);
    qz_fd = -1;
}

int locksnap_qzfs(const char *path) {
    diagnose("Issuing qzfs QZ_FREEZE for %s", path);
    close_frozen();  // of an earlier freeze: only one is kept
    qz_fd = open_directory(path);
    if (qz_fd >= 0) {
        clock_gettime(CLOCK_REALTIME, &snap::freeze_asked);
        if (ioctl(qz_fd, QZ_FREEZE, locksnap_seconds) >= 0) {
            clock_gettime(CLOCK_REALTIME, &snap::freeze_done);
            return 0;
        }
    }
    const int error = errno;
    close_frozen();
    return error;
}

}  // namespace

int lock_fs(const char *path, const char *type) {
    if (strcmp(type, "ufs") == 0) {
        sync();
        return run_ufs_command(snap::lock_command, path);
    }
    if (strcmp(type, "qzfs") == 0) return lock_qzfs(path);
    diagnose("invalid filesystem type %s", type);
    return -1;
}

int unlock_fs(const char *path, const char *type, int fd) {
    if (strcmp(type, "ufs") == 0) return run_ufs_command(snap::unlock_command, path);
    if (strcmp(type, "qzfs") == 0) return unlock_qzfs(path, fd);
    diagnose("invalid filesystem type %s", type);
    return -1;
}

int locksnap(const char *path, int is_ufs, int is_qzfs) {
    if (is_ufs != 0) {
        diagnose("Issuing ufs LOCK_FS for %s", path);
        sync();
        const int status = run_lockfs(snap::lock_command, path);
        return status < 0 ? status : 0;  // as in lock_fs: only a command that did not run counts
    }
    return is_qzfs != 0 ? locksnap_qzfs(path) : 0;
}

int unlocksnap(const char *path, int is_ufs, int is_qzfs) {
    if (is_ufs != 0) {
        run_lockfs(snap::unlock_command, path);
        return 0;
    }
    if (is_qzfs == 0 || qz_fd < 0) return 0;
    int result = 0;
    if (ioctl(qz_fd, QZ_THAW, 0UL) < 0) {
        result = errno;
        diagnose("QZ_THAW returned %d", result);
    }
    close_frozen();
    return result;
}
