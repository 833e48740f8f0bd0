// The mount table: every look-up that reads it, against what a plain reading of it says.
//
//     Input: a line with the path that is looked up, then the table.
#include <mntent.h>

#include <cstring>
#include <vector>

#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "fuzz/support/machine.h"
#include "method/mount_lookup.h"
#include "method/paths.h"
#include "snap/snap.h"

using fuzz::finding;

namespace {

struct Mount {
    std::string device, dir, type;
};

// The table as the C library takes it apart.
std::vector<Mount> read_table() {
    std::vector<Mount> mounts;
    FILE *const stream = setmntent(tf::path::mount_table, "r");
    while (const mntent *entry = getmntent(stream)) {
        mounts.push_back({entry->mnt_fsname, entry->mnt_dir, entry->mnt_type});
    }
    endmntent(stream);
    return mounts;
}

std::string cut(const std::string &text, size_t size) {
    return text.substr(0, size - 1);
}

// The longest directory that begins the path, the first of equals.
const Mount *longest_prefix(const std::vector<Mount> &mounts, const std::string &path) {
    const Mount *best = nullptr;
    for (const Mount &mount : mounts) {
        if (mount.dir.empty() || !path.starts_with(mount.dir)) continue;
        if (best == nullptr || mount.dir.size() > best->dir.size()) best = &mount;
    }
    return best;
}

const Mount *exact(const std::vector<Mount> &mounts, const std::string &path) {
    for (const Mount &mount : mounts) {
        if (mount.dir == path) return &mount;
    }
    return nullptr;
}

void expect_answer(const char *call, int result, const char *device, const char *type,
                   const Mount *wanted) {
    if (result != SN_OK) finding("%s: %d", call, result);
    if ((device == nullptr) != (wanted == nullptr)) finding("%s: found or not", call);
    if (wanted == nullptr) return;
    if (cut(wanted->device, 1024) != device) finding("%s: device %s", call, device);
    if (cut(wanted->type, 64) != type) finding("%s: type %s", call, type);
}

void try_snap(const std::string &path, const std::vector<Mount> &mounts) {
    char *device = nullptr, *type = nullptr, *dir = nullptr;
    int result = fstomp(path.c_str(), &device, &type);
    expect_answer("fstomp", result, device, type, longest_prefix(mounts, path));
    result = fstoblock(path.c_str(), &device, &type);
    expect_answer("fstoblock", result, device, type, exact(mounts, path));
    result = fstoraw(path.c_str(), &device, &type);
    if (result != SN_OK || (device == nullptr) != (exact(mounts, path) == nullptr)) {
        finding("fstoraw: %d", result);
    }
    result = find_mnt(path.c_str(), &dir, &type);
    if (result != SN_OK && result != SN_NO_MOUNT) finding("find_mnt: %d", result);
    if ((result == SN_OK) != (dir != nullptr)) finding("find_mnt: %d without an answer", result);
}

void try_classification(const std::string &path) {
    char *kind = nullptr, *raw = nullptr, *block = nullptr, *mount = nullptr, *type = nullptr;
    const int result = fsdevinfo(path.c_str(), &kind, &raw, &block, &mount, &type);
    // The block device of everything but a block device is the caller's to free.
    if (kind == nullptr || strcmp(kind, "block_device") != 0) free(block);
    if (result < 0) finding("fsdevinfo: %d", result);

    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    char *device = name.data();
    struct stat status = {};
    int is_ufs = 0, is_qzfs = 0;
    if (statdev(&device, &status, &mount, &is_ufs, &is_qzfs) == SN_OK && device[0] == '\0') {
        finding("statdev: an empty device");
    }
    if (is_ufs + is_qzfs > 1) finding("statdev: two types");
}

struct Answer {
    char device[1024], type[1024], dir[1024];
    int32_t status;
};

Answer look_up(const std::string &path, size_t device_size) {
    Answer a = {};
    memset(&a, 'x', sizeof a);
    // A block of the size that is named, so that a byte behind it is seen.
    std::vector<char> device(device_size, 'x');
    a.status = emc_tf__find_mount_device(path.c_str(), device.data(), device.size(), a.type,
                                         sizeof a.type, a.dir, sizeof a.dir);
    if (a.status != 0) return a;
    fuzz::expect_terminated("device", device.data(), device.size());
    fuzz::expect_terminated("type", a.type, sizeof a.type);
    fuzz::expect_terminated("dir", a.dir, sizeof a.dir);
    memcpy(a.device, device.data(), strlen(device.data()) + 1);
    if (strstr(a.device, "//") != nullptr) finding("two slashes in %s", a.device);
    return a;
}

// The first look-up reads the table, the second the cache; a mount whose device stands there once
// gives the same answer twice.
void try_cache(const std::string &path, fuzz::Framework &framework) {
    for (const size_t size : {1024UL, 1024UL, 16UL}) {
        framework.forget();
        const Answer a = look_up(path, size);
        if (a.status != 0) framework.expect_report("emc_tf__find_mount_device");
        if (a.status == 0 && framework.has_report()) finding("a success was reported");
    }
    for (const mnttab_node *node = mnttab_cached_list; node != nullptr; node = node->next) {
        for (const mnttab_node *other = node->next; other != nullptr; other = other->next) {
            if (other->dev == node->dev) finding("a device is cached twice");
        }
        for (const char *passed_over : {"autofs", "lofs", "nfs"}) {
            if (strcmp(node->type, passed_over) == 0) finding("a cached %s", passed_over);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Machine machine;
    fuzz::Framework framework;
    std::string table = fuzz::text_of(data, size);
    const std::string path = fuzz::take_line_off(table).c_str();
    machine.put_file(tf::path::mount_table, table);
    const std::vector<Mount> mounts = read_table();
    try_snap(path, mounts);
    try_classification(path);
    try_cache(path, framework);
    return 0;
}
