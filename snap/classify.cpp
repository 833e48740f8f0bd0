// What a path is: raw device, block device, or something in a file system.
#include <cerrno>
#include <cstring>

#include "snap/snap_internal.h"

namespace {

using snap::diagnose;
using snap::shown;

// Checked in every build: with a null pointer here the caller's memory is already wrong, and the
// text names which argument it was.
void require(bool holds, const char *condition) {
    if (holds) return;
    fprintf(stderr, "statdev: Assertion `%s' failed.\n", condition);
    abort();
}

// stat with its diagnostic; "name" is what the diagnostic calls the path.
int stat_path(const char *path, const char *name, struct stat *status) {
    if (stat(path, status) == 0) return SN_OK;
    diagnose("stat on %s failed errno=%d", shown(name), errno);
    return SN_STAT_FAILED;
}

int stat_raw_device(const char *path, const char *name, struct stat *status) {
    const int result = stat_path(path, name, status);
    if (result != SN_OK) return result;
    if (S_ISCHR(status->st_mode)) return SN_OK;
    diagnose("%s not a disk device", shown(name));
    return SN_NOT_A_DISK;
}

void set_type_flags(const char *type, int *is_ufs, int *is_qzfs) {
    if (type == nullptr) return;
    if (strcmp(type, "ufs") == 0) *is_ufs = 1;
    if (strcmp(type, "qzfs") == 0) *is_qzfs = 1;
}

// A file or directory stands for the device that is mounted there.
int statdev_mounted(char **device, struct stat *status, char **mount_dir, char **type) {
    char *raw = nullptr;
    if (fstoraw(*device, &raw, type) != SN_OK || raw == nullptr) {
        diagnose("%s not a disk device or a file system", *device);
        return SN_NOT_A_DISK;
    }
    *mount_dir = *device;
    *device = raw;
    return stat_raw_device(raw, raw, status);
}

char raw_kind[] = "raw_device";
char block_kind[] = "block_device";
char regular_kind[] = "regular";

int describe_raw(char *path, char **raw, char **block, char **mount, char **type) {
    *raw = path;
    rawtofs(path, mount, type);
    if (*mount != nullptr) *block = raw_to_block(path);
    return SN_OK;
}

int describe_block(char *path, char **raw, char **block, char **mount, char **type) {
    static char raw_name[snap::name_size];  // handed out, so it must outlive the call
    *block = path;
    *raw = blocktoraw(path, raw_name, sizeof raw_name);
    rawtofs(raw_name, mount, type);
    return SN_OK;
}

int describe_file(const char *path, char **raw, char **block, char **mount, char **type) {
    // *mount is the mount's device here, not its directory: callers of this branch pass it on as a
    // device, and a directory there would make them open the wrong thing.
    int result = fstomp(path, mount, type);
    if (result != SN_OK || *mount == nullptr) {
        diagnose("can't obtain mount point for %s", path);
        return result;
    }
    result = fstoraw(*mount, raw, type);
    if (result != SN_OK) {
        diagnose("can't obtain mount device for %s", path);
        return result;
    }
    if (*raw == nullptr) return SN_OK;
    if (strcmp(*type, "qzfs") == 0 || strcmp(*type, "ufs") == 0) {
        // The lines name the block device, which is not known yet, and so say "(null)". Support
        // scripts tell by that word a failure of this branch from the same line about a device.
        struct stat status = {};
        result = stat_raw_device(*raw, *block, &status);
        if (result != SN_OK) return result;
    }
    *block = raw_to_block(*raw);
    return SN_OK;
}

}  // namespace

int statdev(char **device, struct stat *status, char **mount_dir, int *is_ufs, int *is_qzfs) {
    require(*device != nullptr, "*dev != ((void *)0)");
    require(status != nullptr, "statbuf != ((void *)0)");
    *mount_dir = nullptr;
    if ((*device)[0] != '/') return SN_NOT_ABSOLUTE;
    int result = stat_path(*device, *device, status);
    if (result != SN_OK) return result;
    char *type = nullptr;
    if (S_ISCHR(status->st_mode)) {
        rawtofs(*device, mount_dir, &type);
    } else if (S_ISBLK(status->st_mode)) {
        char raw[snap::name_size];
        rawtofs(blocktoraw(*device, raw, sizeof raw), mount_dir, &type);
        // Bounded by the old name, because that is all the room the caller is known to have: a raw
        // name is one character longer and loses its last one. More would write past the buffer.
        Q_strlcpy(*device, raw, strlen(*device) + 1);
    } else {
        result = statdev_mounted(device, status, mount_dir, &type);
        if (result != SN_OK) return result;
    }
    set_type_flags(type, is_ufs, is_qzfs);
    return SN_OK;
}

int fsdevinfo(const char *path, char **kind, char **raw, char **block, char **mount, char **type) {
    if (path == nullptr) {
        diagnose("null input argument");
        return SN_NULL_ARGUMENT;
    }
    *raw = *block = *mount = *type = nullptr;
    if (path[0] != '/') return SN_NOT_ABSOLUTE;
    struct stat status = {};
    const int result = stat_path(path, path, &status);
    if (result != SN_OK) return result;
    // The outputs are char *, as the interface has them; the caller's text is not written to.
    char *given = const_cast<char *>(path);
    if (S_ISCHR(status.st_mode)) {
        *kind = raw_kind;
        return describe_raw(given, raw, block, mount, type);
    }
    if (S_ISBLK(status.st_mode)) {
        *kind = block_kind;
        return describe_block(given, raw, block, mount, type);
    }
    *kind = regular_kind;
    return describe_file(path, raw, block, mount, type);
}
