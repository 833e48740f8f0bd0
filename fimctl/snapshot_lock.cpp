#include "fimctl/snapshot_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fimctl/failure.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

// The whole file. Such a lock belongs to the open file, so a phase that inherits the descriptor
// holds it too, and it can be looked at without being taken.
struct flock whole_file() {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

[[noreturn]] void give_up_on(const std::string &name, int reason) {
    throw Failure(Step::catalogue,
                  reason == EACCES || reason == EPERM ? ExitCode::permission : ExitCode::failed,
                  name + ": " + strerror(reason));
}

// A folder that somebody else could write to would let him take locks away.
void make_private(const std::string &folder) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) give_up_on(folder, errno);
    struct stat status = {};
    if (lstat(folder.c_str(), &status) != 0) give_up_on(folder, errno);
    if (!S_ISDIR(status.st_mode) || status.st_uid != geteuid()) give_up_on(folder, EPERM);
    if ((status.st_mode & 07777) != 0700 && chmod(folder.c_str(), 0700) != 0) {
        give_up_on(folder, errno);
    }
}

bool is_same(int file, const std::string &name) {
    struct stat open_one = {};
    struct stat named = {};
    return fstat(file, &open_one) == 0 && stat(name.c_str(), &named) == 0 &&
           open_one.st_dev == named.st_dev && open_one.st_ino == named.st_ino;
}

std::string described(pid_t holder) {
    return holder > 0 ? " (process " + std::to_string(holder) + ")" : "";
}

}  // namespace

// The catalogue's file itself tells state directories apart: it is what two commands would both
// write, whatever path each of them has used to reach it.
std::string lock_folder_of(const std::string &directory) {
    const std::string catalogue = directory + "/" + path::catalogue_file;
    struct stat status = {};
    if (stat(catalogue.c_str(), &status) != 0) give_up_on(catalogue, errno);
    char key[64] = "";
    snprintf(key, sizeof key, "%llx-%llx", static_cast<unsigned long long>(status.st_dev),
             static_cast<unsigned long long>(status.st_ino));
    return std::string(path::runtime_directory) + "/" + key;
}

// A file that its holder removed between our open and our lock is nobody's lock any more: only the
// one that still has its name counts.
SnapshotLock::SnapshotLock(const std::string &directory, int64_t id) {
    const std::string folder = lock_folder_of(directory);
    make_private(path::runtime_directory);
    make_private(folder);
    name_ = folder + "/" + std::to_string(id);
    for (;;) {
        file_ = open(name_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (file_ < 0) give_up_on(name_, errno);
        struct flock lock = whole_file();
        if (fcntl(file_, F_OFD_SETLK, &lock) != 0) break;
        if (is_same(file_, name_)) {
            // For whoever is refused: the kernel names no holder of such a lock.
            const std::string number = std::to_string(getpid());
            const bool told =
                ftruncate(file_, 0) == 0 && pwrite(file_, number.data(), number.size(), 0) > 0;
            static_cast<void>(told);
            return;
        }
        close(file_);
    }
    const int reason = errno;
    close(file_);
    if (reason != EAGAIN && reason != EACCES) give_up_on(name_, reason);
    throw Failure(Step::catalogue, ExitCode::owned,
                  "another fimctl" + described(holder_of(directory, id)) + " works on snapshot " +
                      std::to_string(id));
}

pid_t SnapshotLock::holder_of(const std::string &directory, int64_t id) {
    const std::string name = lock_folder_of(directory) + "/" + std::to_string(id);
    const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (file < 0) return 0;
    char number[16] = "";
    const bool is_read = read(file, number, sizeof number - 1) > 0;
    close(file);
    return is_read ? static_cast<pid_t>(strtol(number, nullptr, 10)) : 0;
}

LockState SnapshotLock::state_of(const std::string &directory, int64_t id) {
    const std::string name = lock_folder_of(directory) + "/" + std::to_string(id);
    const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (file < 0) return LockState::none;
    struct flock lock = whole_file();
    const bool is_free = fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_UNLCK;
    const bool is_named = is_same(file, name);
    close(file);
    if (!is_free) return LockState::held;
    return is_named ? LockState::left : LockState::none;
}

SnapshotLock::~SnapshotLock() {
    unlink(name_.c_str());
    close(file_);
}

}  // namespace fimctl
