// ioctl, sync and popen of the code under test: remembered, and answered as told.
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "tests/snap/snap_fixture.h"

extern "C" {
int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
void __real_sync(void);
void __wrap_sync(void);
FILE *__real_popen(const char *command, const char *mode);
FILE *__wrap_popen(const char *command, const char *mode);
}

namespace test {
Calls &calls() {
    static Calls all;
    return all;
}
}  // namespace test

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    const unsigned long argument = va_arg(args, unsigned long);
    va_end(args);
    char line[100];
    snprintf(line, sizeof line, "call: ioctl 0x%lx %lu", request, argument);
    test::events().emplace_back(line);
    if (test::calls().real_ioctl) return __real_ioctl(fd, request, argument);
    if (test::calls().ioctl_error == 0) return test::calls().ioctl_result;
    errno = test::calls().ioctl_error;
    return -1;
}

void __wrap_sync() {
    test::events().emplace_back("call: sync");
}

FILE *__wrap_popen(const char *command, const char *mode) {
    test::events().emplace_back(std::string("call: popen ") + command);
    if (test::calls().failing_pipe > 0 && --test::calls().failing_pipe == 0) {
        errno = EMFILE;
        return nullptr;
    }
    return __real_popen(command, mode);
}
