// The calls of the code under test, answered by the fake machine. Outside a run, and in the threads
// of the fuzzer, they are the real ones.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>

#include "fuzz/support/finding.h"
#include "fuzz/support/machine.h"
#include "fuzz/support/real_calls.h"

using fuzz::finding;
using fuzz::machine;
using fuzz::RealCalls;

int __wrap_open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    return machine() != nullptr ? machine()->open_file(path, flags, mode)
                                : __real_open(path, flags, mode);
}

int __wrap_unlink(const char *path) {
    return machine() != nullptr ? machine()->unlink_file(path) : __real_unlink(path);
}

int __wrap_stat(const char *path, struct stat *status) {
    if (machine() == nullptr) return __real_stat(path, status);
    return machine()->describe(path, status) ? 0 : -1;
}

int __wrap_lstat(const char *path, struct stat *status) {
    if (machine() == nullptr) return __real_lstat(path, status);
    return machine()->describe(path, status) ? 0 : -1;
}

// Anonymous memory has no name; for the code under test it is a file with one.
int __wrap_fstat(int fd, struct stat *status) {
    const int result = __real_fstat(fd, status);
    if (machine() != nullptr && result == 0) status->st_nlink = 1;
    return result;
}

int __wrap_access(const char *path, int mode) {
    if (machine() == nullptr) return __real_access(path, mode);
    struct stat status = {};
    return machine()->describe(path, &status) ? 0 : -1;
}

int __wrap_mkdir(const char *path, mode_t mode) {
    if (machine() == nullptr) return __real_mkdir(path, mode);
    finding("makes the folder %s", path);
}

int __wrap_chown(const char *path, uid_t uid, gid_t gid) {
    if (machine() == nullptr) return __real_chown(path, uid, gid);
    struct stat status = {};
    return machine()->describe(path, &status) ? 0 : -1;
}

char *__wrap_realpath(const char *path, char *resolved) {
    if (machine() == nullptr) return __real_realpath(path, resolved);
    struct stat status = {};
    if (!machine()->describe(path, &status)) return nullptr;
    memcpy(resolved, path, strlen(path) + 1);  // describe refuses what is longer than PATH_MAX
    return resolved;
}

char *__wrap___realpath_chk(const char *path, char *resolved, size_t size) {
    if (machine() != nullptr && size < PATH_MAX) finding("a buffer of %zu for realpath", size);
    return __wrap_realpath(path, resolved);
}

FILE *__wrap_setmntent(const char *path, const char *mode) {
    if (machine() == nullptr) return __real_setmntent(path, mode);
    if (mode[0] != 'r' || strchr(mode, '+') != nullptr) finding("opens %s to write", path);
    if (!machine()->has_file(path)) {
        errno = ENOENT;
        return nullptr;
    }
    return fdopen(machine()->open_file(path, O_RDONLY | O_CLOEXEC, 0), "r");
}

char *__wrap_tempnam(const char *folder, const char *prefix) {
    return machine() != nullptr ? machine()->new_temporary_name(prefix)
                                : __real_tempnam(folder, prefix);
}

int __wrap_system(const char *line) {
    return machine() != nullptr ? machine()->run(line) : __real_system(line);
}

FILE *__wrap_popen(const char *line, const char *mode) {
    if (machine() == nullptr) return __real_popen(line, mode);
    constexpr char place[] = "/the output of a command";
    machine()->put_file(place, machine()->run_for_output(line));
    return fdopen(machine()->open_file(place, O_RDONLY | O_CLOEXEC, 0), "r");
}

int __wrap_pclose(FILE *stream) {
    return machine() != nullptr ? fclose(stream) : __real_pclose(stream);
}

unsigned __wrap_sleep(unsigned seconds) {
    if (machine() == nullptr) return __real_sleep(seconds);
    machine()->pause();
    return 0;
}

pid_t __wrap_getpgid(pid_t pid) {
    if (machine() == nullptr) return __real_getpgid(pid);
    if (pid == 0 || pid == getpid() || machine()->alive.contains(pid)) return pid;
    errno = ESRCH;
    return -1;
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    const unsigned long argument = va_arg(args, unsigned long);
    va_end(args);
    return machine() != nullptr ? 0 : __real_ioctl(fd, request, argument);
}

void __wrap_sync() {
    if (machine() == nullptr) __real_sync();
}

void *__wrap_dlopen(const char *path, int flags) {
    return machine() != nullptr ? nullptr : __real_dlopen(path, flags);
}
