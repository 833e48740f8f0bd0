// The kernel's mount table, read anew for every question: other processes mount and unmount too.
#include "host/mounts.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/owners.h"
#include "tessera_host.h"

namespace tessera {
namespace {

// One line of the table: "ID PARENT MAJOR:MINOR ROOT DIRECTORY OPTIONS ...".
struct Mount {
    dev_t device;
    const char *root;  // which part of the file system is mounted; "/" is all of it
    char *directory;
};

// The table writes blank, tab, newline and backslash as three octal digits.
void decode(char *text) {
    constexpr size_t digits = 3;
    char *out = text;
    for (const char *in = text; *in != '\0';) {
        if (in[0] == '\\' && strspn(in + 1, "01234567") >= digits) {
            *out++ = static_cast<char>((in[1] - '0') * 64 + (in[2] - '0') * 8 + (in[3] - '0'));
            in += 1 + digits;
        } else {
            *out++ = *in++;
        }
    }
    *out = '\0';
}

bool parse(char *line, Mount *mount) {
    strsep(&line, " ");
    strsep(&line, " ");
    const char *device = strsep(&line, " ");
    mount->root = strsep(&line, " ");
    mount->directory = strsep(&line, " ");
    unsigned major_number = 0, minor_number = 0;
    if (mount->directory == nullptr || sscanf(device, "%u:%u", &major_number, &minor_number) != 2) {
        return false;
    }
    mount->device = makedev(major_number, minor_number);
    decode(mount->directory);
    return true;
}

bool shows_device(const char *dir, dev_t device) {
    struct stat status = {};
    return stat(dir, &status) == 0 && status.st_dev == device;
}

}  // namespace

Mounted find_mount(dev_t device, const char *dir, char (&found)[directory_size]) {
    const Stream table(fopen("/proc/self/mountinfo", "re"));
    if (!table) return Mounted::unknown;
    const Heap<char> real_dir(dir != nullptr ? realpath(dir, nullptr) : nullptr);
    Heap<char> line;
    size_t capacity = 0;
    Mounted answer = Mounted::nowhere;
    while (getline(line.out(), &capacity, table.get()) > 0) {
        Mount mount = {};
        if (!parse(line.get(), &mount) || mount.device != device) continue;
        Q_strlcpy(found, mount.directory, sizeof found);
        answer = Mounted::elsewhere;
        // A mount below another one on the same directory is listed too, but is not what is seen.
        if (real_dir && strcmp(real_dir.get(), mount.directory) == 0 &&
            strcmp(mount.root, "/") == 0 && shows_device(real_dir.get(), device)) {
            return Mounted::here;
        }
    }
    // A table that broke off may have gone on with the very line that was looked for.
    return feof(table.get()) != 0 ? answer : Mounted::unknown;
}

bool block_device_number(const char *path, dev_t *device) {
    struct stat status = {};
    if (stat(path, &status) != 0 || !S_ISBLK(status.st_mode)) return false;
    *device = status.st_rdev;
    return true;
}

}  // namespace tessera
