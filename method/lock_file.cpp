#include "method/lock_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "method/descriptor.h"
#include "method/device_information.h"
#include "method/held_write.h"
#include "method/log.h"
#include "method/numbers.h"
#include "method/paths.h"
#include "method/private_file.h"
#include "method/text.h"

namespace {

constexpr mode_t lock_file_mode = 0600;
constexpr ssize_t field_size = sizeof(int32_t);

// Returned by all three routines; their callers report.
constexpr int failed = -1;

// A pipe that stands in a file's place is not waited for: reading it fails.
int open_private(const char *path) {
    return tf::open_file(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, lock_file_mode);
}

// Logs a line about a file and returns the failure.
int complain(const char *format, const char *path) {
    tf::log_progress(format, path);
    return failed;
}

// The lock is waited for without limit; a signal that the framework handles must not cost a
// snapshot its lock, so the wait goes on after one.
bool lock_whole_file(int fd) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    int result = 0;
    do {
        result = fcntl(fd, F_SETLKW, &lock);
    } while (result == -1 && errno == EINTR);
    return result != -1;
}

// Reads one field of the counter file. A field that is cut off counts as missing; its value then
// stays 0.
enum class Field { read, missing, unreadable };
Field read_field(int fd, int32_t *value) {
    int32_t stored = 0;
    const ssize_t got = read(fd, &stored, sizeof stored);
    *value = got == field_size ? stored : 0;
    if (got < 0) return Field::unreadable;
    return got == field_size ? Field::read : Field::missing;
}

bool write_field(const tf::HeldSignals &held, int fd, int32_t value) {
    return tf::held_write(held, fd, &value, sizeof value) == field_size;
}

// Only a process that surely is no more loses its file; one that cannot be asked about counts as
// alive.
bool is_gone(pid_t pid) {
    errno = 0;
    return getpgid(pid) == -1 && errno == ESRCH;
}

// Whether this process may use the counter file: nobody owns it, or this process, or one that
// died, whose count is thrown away.
bool take_over(int fd, const char *path) {
    int32_t owner = 0;
    if (read_field(fd, &owner) == Field::unreadable) {
        complain("could not read pid from file: %s", path);
        return false;
    }
    if (owner == 0 || owner == getpid()) return true;
    if (!is_gone(owner)) {
        tf::log_progress("lock pid(%d) != pid(%d): %s", owner, getpid(), path);
        return false;
    }
    tf::log_trace("truncating leftover lock file: %s", path);
    if (ftruncate(fd, 0) != 0) {
        complain("could not truncate file: %s", path);
        return false;
    }
    return true;
}

struct Counter {
    int32_t owner;
    int32_t objects;
    int32_t is_split;
};

// The count is not held at 0: a clear too many leaves -1 in the file, which then stays, so that the
// mismatch can be seen.
int32_t add_wrapping(int32_t count, int32_t step) {
    return static_cast<int32_t>(static_cast<uint32_t>(count) + static_cast<uint32_t>(step));
}

// Reads the counter and changes it in memory. What is written back always says "split": whoever
// comes after the first record of an array finds the array's split already taken care of.
int read_counter(prim_mir_info *pm, int fd, bool increment, Counter *counter) {
    if (lseek(fd, 0, SEEK_SET) == -1) return complain("could not lseek file: %s", pm->lock_file);
    if (read_field(fd, &counter->owner) == Field::unreadable) {
        return complain("could not read pid from file: %s", pm->lock_file);
    }
    counter->owner = getpid();
    if (counter->owner == -1) {
        tf::log_progress("could not get pid");
        return failed;
    }
    const Field count = read_field(fd, &counter->objects);
    if (count == Field::unreadable) {
        return complain("could not read number of objects from file: %s", pm->lock_file);
    }
    if (count == Field::missing && !increment) {
        return complain("could not decrement counter....counter missing from file: %s",
                        pm->lock_file);
    }
    counter->objects = add_wrapping(counter->objects, increment ? 1 : -1);
    if (read_field(fd, &counter->is_split) == Field::unreadable) {
        return complain("could not read is_split flag from file: %s", pm->lock_file);
    }
    pm->issplit = counter->is_split;
    counter->is_split = 1;
    return tf::success;
}

int write_counter(const prim_mir_info *pm, int fd, const Counter &counter) {
    if (lseek(fd, 0, SEEK_SET) == -1) return complain("could not lseek file: %s", pm->lock_file);
    bool written = false;
    {
        const tf::HeldSignals held;  // let go before the framework's log is called
        written = write_field(held, fd, counter.owner) && write_field(held, fd, counter.objects) &&
                  write_field(held, fd, counter.is_split);
    }
    return written ? tf::success : complain("could not write to file: %s", pm->lock_file);
}

// The last clear takes the file away. Whatever goes wrong here, the count that was written says
// that nobody holds the array.
void remove_counter(const prim_mir_info *pm, int fd) {
    if (ftruncate(fd, 0) != 0) complain("could not truncate lock file: %s", pm->lock_file);
    if (unlink(pm->lock_file) != 0) tf::log_trace("could not unlink file: %s", pm->lock_file);
}

// Stores the path of the record's counter file. Devices of one array whose serial numbers differ
// only in the last two characters share it: the file counts per array, not per device.
int name_counter_file(const hdef *h, prim_mir_info *pm) {
    const tf::HeapOwner<device_info> info(find_device(h, pm->dev_raw_device));
    if (!info) return failed;
    const int length = tf::put_format(pm->lock_file, tf::path::counter_file_format, info->serial);
    if (length < 1 || static_cast<size_t>(length) >= sizeof pm->lock_file) {
        tf::log_trace("pathlength of lock file too long");
        return failed;
    }
    memset(pm->lock_file + length - 2, '0', 2);
    // The number comes from outside: it names a file, never a way into another folder.
    if (strchr(info->serial, '/') != nullptr) {
        return complain("could not open file: %s", pm->lock_file);
    }
    return tf::success;
}

// One locked update. The owners close the counter file before the lock file, whose closing releases
// the lock.
int update_counter(prim_mir_info *pm, int mode, const char *what_failed) {
    tf::DescriptorOwner lock;
    const tf::DescriptorOwner file(open_lock_file(pm->lock_file, lock.out()));
    if (!file) return failed;
    const int result = change_counter(pm, file.get(), mode);
    if (result != tf::success) tf::log_trace(what_failed, pm->lock_file);
    tf::log_trace("closing fd=%d, lockfd=%d", file.get(), lock.get());
    return result;
}

}  // namespace

int open_lock_file(const char *path, int *lock_fd) {
    const char *const lock_path = tf::path::host_lock_file;
    tf::DescriptorOwner lock(open_private(lock_path));
    if (!lock) return complain("could not open file: %s", lock_path);
    tf::log_trace("trying to get lock on file: %s", lock_path);
    if (!lock_whole_file(lock.get())) return complain("could not lock file: %s", lock_path);
    tf::log_trace("obtained lock on file: %s", lock_path);
    tf::DescriptorOwner file(open_private(path));
    if (!file) return complain("could not open file: %s", path);
    if (!take_over(file.get(), path)) return failed;
    *lock_fd = lock.release();
    return file.release();
}

int change_counter(prim_mir_info *pm, int fd, int mode) {
    Counter counter = {};
    if (read_counter(pm, fd, mode == TF_LOCK_SET, &counter) != tf::success) return failed;
    if (write_counter(pm, fd, counter) != tf::success) return failed;
    if (counter.objects == 0) remove_counter(pm, fd);
    return tf::success;
}

int manage_lock(const hdef *h, prim_mir_info *pm, int mode) {
    if (mode == TF_LOCK_SET) {
        if (name_counter_file(h, pm) != tf::success) return failed;
        tf::log_trace("%s: setting lock on file: %s", "manage_lock", pm->lock_file);
        return update_counter(pm, mode, "could not increment object counter for lock file: %s");
    }
    if (mode == TF_LOCK_CLEAR) {
        tf::log_trace("%s: clearing lock on file: %s", "manage_lock", pm->lock_file);
        return update_counter(pm, mode, "could not decrement object counter for lock file: %s");
    }
    return failed;
}
