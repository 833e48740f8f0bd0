// Look-ups in the mount table.
#include <climits>
#include <cstring>

#include "snap/snap_internal.h"

namespace {

using snap::diagnose;

// What a look-up found, in the static buffers that its results point into.
struct Found {
    char fsnamebuf[snap::name_size];
    char fstypebuf[snap::type_size];

    void hand_out(const char *name, const char *entry_type, char **name_out, char **type_out) {
        Q_strlcpy(fsnamebuf, name, sizeof fsnamebuf);
        Q_strlcpy(fstypebuf, entry_type, sizeof fstypebuf);
        *name_out = fsnamebuf;
        *type_out = fstypebuf;
    }
};

// The mount table, open for reading until the end of the scope.
class MountTable {
  public:
    MountTable() : stream_(setmntent(snap::mount_table, "re")) {
        if (stream_ == nullptr) diagnose("couldn't open %s", snap::mount_table);
    }
    ~MountTable() {
        if (stream_ != nullptr) endmntent(stream_);
    }
    MountTable(const MountTable &) = delete;
    MountTable &operator=(const MountTable &) = delete;

    explicit operator bool() const { return stream_ != nullptr; }
    const mntent *next() { return getmntent(stream_); }

  private:
    FILE *stream_;
};

// A path as the mount table would name it. "what" is the word that the failure's line uses for it.
class ResolvedPath {
  public:
    ResolvedPath(const char *path, const char *what) {
        if (realpath(path, buffer_) != nullptr) {
            name_ = buffer_;
            diagnose("realpath returned linkname as %s for %s", name_, path);
        } else {
            name_ = path;
            diagnose("realpath returned NULL for %s %s", what, path);
        }
    }
    const char *name() const { return name_; }

  private:
    char buffer_[PATH_MAX];
    const char *name_;
};

const mntent *find_directory(MountTable &table, const char *directory) {
    while (const mntent *entry = table.next()) {
        if (strcmp(entry->mnt_dir, directory) == 0) return entry;
    }
    return nullptr;
}

}  // namespace

int fstomp(const char *path, char **device, char **type) {
    static Found found;
    *device = *type = nullptr;
    MountTable table;
    if (!table) return SN_NO_MOUNT;
    const ResolvedPath resolved(path, "fsname");
    size_t best = 0;
    while (const mntent *entry = table.next()) {
        // A plain prefix, also when it ends inside a name (/data begins /database): the device that
        // is answered for such a path is what frameworks have recorded, so it stays.
        const size_t length = strlen(entry->mnt_dir);
        if (length > best && strncmp(resolved.name(), entry->mnt_dir, length) == 0) {
            best = length;
            found.hand_out(entry->mnt_fsname, entry->mnt_type, device, type);
        }
    }
    return SN_OK;
}

int fstoblock(const char *path, char **block, char **type) {
    static Found found;
    *block = *type = nullptr;
    MountTable table;
    if (!table) return SN_NO_MOUNT;
    const ResolvedPath resolved(path, "fsname");
    if (const mntent *entry = find_directory(table, resolved.name())) {
        found.hand_out(entry->mnt_fsname, entry->mnt_type, block, type);
    }
    return SN_OK;
}

int fstoraw(const char *path, char **raw, char **type) {
    static Found found;
    *raw = *type = nullptr;
    MountTable table;
    if (!table) return SN_NO_MOUNT;
    const ResolvedPath resolved(path, "partition");
    if (const mntent *entry = find_directory(table, resolved.name())) {
        diagnose("matched %s to mnttab entry %s", path, entry->mnt_dir);
        char name[snap::name_size];
        found.hand_out(blocktoraw(entry->mnt_fsname, name, sizeof name), entry->mnt_type, raw,
                       type);
    }
    return SN_OK;
}

int find_mnt(const char *raw, char **dir, char **type) {
    static Found found;
    *dir = *type = nullptr;
    const snap::OwnedText block(raw_to_block(raw));
    if (block == nullptr) {
        diagnose("Could not convert raw device %s to block device", raw);
        return SN_NO_MOUNT;
    }
    MountTable table;
    if (!table) return SN_NO_MOUNT;
    while (const mntent *entry = table.next()) {
        if (strcmp(entry->mnt_fsname, block.get()) != 0) continue;
        // "mount device" is the directory: readers of these lines have learnt it that way round.
        diagnose("mount device: %s fstype: %s", entry->mnt_dir, entry->mnt_type);
        found.hand_out(entry->mnt_dir, entry->mnt_type, dir, type);
        return SN_OK;
    }
    return SN_NO_MOUNT;
}
