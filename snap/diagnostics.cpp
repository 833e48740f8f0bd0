// The module's own diagnostic channel, its texts, and its way to run a command.
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "snap/snap_internal.h"

char err_msg[2048];

// Codes 6 and 7 have no text, although 6 is a result: callers print their own words for a null
// text.
const struct sn_text snmsg[] = {
    {1, "bad argument count"},
    {2, "invalid path for snap partition"},
    {3, "invalid path for cache partition"},
    {4, "snap open failed"},
    {5, "cache open failed"},
    {8, "couldn't open snap driver - check installation"},
    {9, "error reading snapshot partition parameters"},
    {10, "error reading cache partition parameters"},
    {11, "ioctl on snap driver failed"},
    {12, "memory allocation failed"},
    {13, "stat system call failed"},
    {14, "could open and read mount table"},
    {15, "file name too long"},
    {16, "couldn't create snapshot device files"},
    {17, "couldn't remove snapshot device files"},
    {18, "file system mounted on snapshot"},
    {19, "specified cache contains mounted file system"},
    {20, "snaped and cache device can't be the same"},
    {0, nullptr},
};

namespace {

sn_err_function err_function = nullptr;
int32_t err_fd = -1;
int32_t err_nl = 0;

}  // namespace

void sn_set_errf(sn_err_function sink, int32_t fd, int32_t newline) {
    err_function = sink;
    err_fd = fd;
    err_nl = newline;
}

const char *sn_msg(int code) {
    if (code < 0) return nullptr;
    for (const sn_text *row = snmsg; row->code >= 1; ++row) {
        if (row->code == code) return row->text;
    }
    return nullptr;
}

void print_err() {
    if (err_function == nullptr || err_fd < 0) return;
    size_t length = strnlen(err_msg, sizeof err_msg - 1);
    if (err_nl != 0) {
        if (length == sizeof err_msg - 1) --length;
        err_msg[length++] = '\n';
        err_msg[length] = '\0';
    }
    err_function(err_fd, err_msg, static_cast<int>(length));
}

namespace snap {

void diagnose(const char *format, ...) {
    va_list args;
    va_start(args, format);
    Q_vsnprintf(err_msg, sizeof err_msg, format, args);
    va_end(args);
    print_err();
}

}  // namespace snap

int system_cmd(const char *command, const char *argument) {
    char line[1024] = "";
    const int length = Q_snprintf(line, sizeof line, "%s %s", command, argument);
    errno = 0;
    // Half a command line is another command: rather none than one on a path that was cut.
    const bool fits = length >= 0 && static_cast<size_t>(length) < sizeof line;
    const int status = fits ? system(line) : -1;
    if (status != 0) snap::diagnose("system command %s failed errno=%d\n", line, errno);
    return status;
}
