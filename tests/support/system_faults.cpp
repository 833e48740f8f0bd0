#include "tests/support/system_faults.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

extern "C" {
ssize_t __real_read(int fd, void *buffer, size_t size);
ssize_t __real_write(int fd, const void *buffer, size_t size);
off_t __real_lseek(int fd, off_t offset, int whence);
int __real_ftruncate(int fd, off_t length);
int __real_unlink(const char *path);
int __real_fcntl(int fd, int command, ...);
pid_t __real_getpgid(pid_t pid);
pid_t __real_getpid();
int __real_system(const char *command);
int __real_close(int fd);
int __real_fstat(int fd, struct stat *status);
FILE *__real_fdopen(int fd, const char *mode);
ssize_t __wrap_read(int fd, void *buffer, size_t size);
ssize_t __wrap_write(int fd, const void *buffer, size_t size);
off_t __wrap_lseek(int fd, off_t offset, int whence);
int __wrap_ftruncate(int fd, off_t length);
int __wrap_unlink(const char *path);
int __wrap_fcntl(int fd, int command, ...);
pid_t __wrap_getpgid(pid_t pid);
pid_t __wrap_getpid();
int __wrap_system(const char *command);
int __wrap_close(int fd);
int __real_access(const char *path, int mode);
int __wrap_access(const char *path, int mode);
int __wrap_fstat(int fd, struct stat *status);
FILE *__wrap_fdopen(int fd, const char *mode);
int __wrap_Q_snprintf(char *out, size_t size, const char *format, ...);
int __real_sigtimedwait(const sigset_t *set, siginfo_t *info, const timespec *limit);
int __wrap_sigtimedwait(const sigset_t *set, siginfo_t *info, const timespec *limit);
}

namespace {

struct Fault {
    char function[16] = "";
    int n = 0;
    int error = 0;
    long result = 0;
} fault;

void (*close_action)(int fd);
void (*command_line_action)(const char *line);
void (*write_action)();

bool answered(const char *function) {
    if (strcmp(fault.function, function) != 0 || --fault.n != 0) return false;
    errno = fault.error;
    return true;
}

}  // namespace

namespace test {

SystemFault::SystemFault(const std::string &function, int n, int error, long result) {
    fault = {};
    function.copy(fault.function, sizeof fault.function - 1);
    fault.n = n;
    fault.error = error;
    fault.result = result;
}

SystemFault::~SystemFault() {
    fault = {};
}

void on_close(void (*action)(int fd)) {
    close_action = action;
}

void on_write(void (*action)()) {
    write_action = action;
}

void on_command_line(void (*action)(const char *line)) {
    command_line_action = action;
}

}  // namespace test

ssize_t __wrap_read(int fd, void *buffer, size_t size) {
    return answered("read") ? fault.result : __real_read(fd, buffer, size);
}
ssize_t __wrap_write(int fd, const void *buffer, size_t size) {
    if (write_action != nullptr) write_action();
    return answered("write") ? fault.result : __real_write(fd, buffer, size);
}
off_t __wrap_lseek(int fd, off_t offset, int whence) {
    return answered("lseek") ? fault.result : __real_lseek(fd, offset, whence);
}
int __wrap_ftruncate(int fd, off_t length) {
    return answered("ftruncate") ? static_cast<int>(fault.result) : __real_ftruncate(fd, length);
}
int __wrap_unlink(const char *path) {
    return answered("unlink") ? static_cast<int>(fault.result) : __real_unlink(path);
}
int __wrap_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void *const argument = va_arg(args, void *);
    va_end(args);
    return answered("fcntl") ? static_cast<int>(fault.result) : __real_fcntl(fd, command, argument);
}
pid_t __wrap_getpgid(pid_t pid) {
    return answered("getpgid") ? static_cast<pid_t>(fault.result) : __real_getpgid(pid);
}
pid_t __wrap_getpid() {
    return answered("getpid") ? static_cast<pid_t>(fault.result) : __real_getpid();
}
int __wrap_system(const char *command) {
    if (command_line_action != nullptr) command_line_action(command);
    return answered("system") ? static_cast<int>(fault.result) : __real_system(command);
}
int __wrap_access(const char *path, int mode) {
    return answered("access") ? static_cast<int>(fault.result) : __real_access(path, mode);
}
int __wrap_close(int fd) {
    if (close_action != nullptr) close_action(fd);
    return __real_close(fd);
}
int __wrap_fstat(int fd, struct stat *status) {
    return answered("fstat") ? static_cast<int>(fault.result) : __real_fstat(fd, status);
}
FILE *__wrap_fdopen(int fd, const char *mode) {
    return answered("fdopen") ? nullptr : __real_fdopen(fd, mode);
}
// A formatter has no system error; one that fails may have written nothing at all.
int __wrap_Q_snprintf(char *out, size_t size, const char *format, ...) {
    if (answered("Q_snprintf")) return static_cast<int>(fault.result);
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(out, size, format, args);
    va_end(args);
    return length;
}
int __wrap_sigtimedwait(const sigset_t *set, siginfo_t *info, const timespec *limit) {
    return answered("sigtimedwait") ? static_cast<int>(fault.result)
                                    : __real_sigtimedwait(set, info, limit);
}
