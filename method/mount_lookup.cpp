#include "method/mount_lookup.h"

#include <mntent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "method/log.h"
#include "method/paths.h"
#include "method/report.h"
#include "method/text.h"

int32_t mnttab_cached;
mnttab_node *mnttab_cached_list;

namespace {

constexpr char devtomp_reporter[] = "emc_tf__devtomp";
constexpr char find_reporter[] = "emc_tf__find_mount_device";

// The line that the message about a device name too long for its buffer has always quoted.
constexpr int name_too_long_line = 1181;
constexpr size_t device_name_size = 1024;

// The cache behind mnttab_cached_list, with an index over the device numbers once it is long enough
// for one to pay. Without memory for the index the list is searched from end to end instead.
class MountCache {
  public:
    ~MountCache() { clear(); }

    void clear() {
        while (mnttab_cached_list != nullptr) {
            mnttab_node *const node = mnttab_cached_list;
            mnttab_cached_list = node->next;
            free(node);
        }
        free(buckets_);
        buckets_ = nullptr;
        bucket_count_ = nodes_ = 0;
        mnttab_cached = 0;
    }

    const mnttab_node *find(uint64_t dev) const {
        if (buckets_ != nullptr) return buckets_[bucket_of(dev)];
        const mnttab_node *node = mnttab_cached_list;
        while (node != nullptr && node->dev != dev) node = node->next;
        return node;
    }

    // False when there was no memory for the entry.
    bool add(uint64_t dev, const mntent &entry) {
        auto *const node = tf::make_zeroed<mnttab_node>();
        if (node == nullptr) return false;
        node->dev = dev;
        tf::put(node->dir, entry.mnt_dir);
        tf::put(node->name, entry.mnt_fsname);
        tf::put(node->type, entry.mnt_type);
        node->next = mnttab_cached_list;
        mnttab_cached_list = node;
        ++nodes_;
        enter(node);
        return true;
    }

  private:
    static constexpr size_t nodes_without_index = 32;

    // The bucket that holds the device number, or the free one where it would go. The index is at
    // most half full, so there always is one.
    size_t bucket_of(uint64_t dev) const {
        size_t bucket = (dev * 0x9e3779b97f4a7c15U >> 32) & (bucket_count_ - 1);
        while (buckets_[bucket] != nullptr && buckets_[bucket]->dev != dev) {
            bucket = (bucket + 1) & (bucket_count_ - 1);
        }
        return bucket;
    }

    void enter(mnttab_node *node) {
        if (nodes_ <= nodes_without_index) return;
        if (buckets_ == nullptr || 2 * nodes_ > bucket_count_) {
            rebuild();
        } else {
            buckets_[bucket_of(node->dev)] = node;
        }
    }

    void rebuild() {
        free(buckets_);
        bucket_count_ = 4 * nodes_without_index;
        while (bucket_count_ < 4 * nodes_) bucket_count_ *= 2;
        buckets_ = static_cast<mnttab_node **>(calloc(bucket_count_, sizeof *buckets_));
        if (buckets_ == nullptr) return;
        for (mnttab_node *node = mnttab_cached_list; node != nullptr; node = node->next) {
            buckets_[bucket_of(node->dev)] = node;
        }
    }

    mnttab_node **buckets_ = nullptr;
    size_t bucket_count_ = 0;
    size_t nodes_ = 0;
};

MountCache cache;

// Where a look-up's answer goes.
struct MountAnswer {
    char *dir;
    size_t dir_size;
    char *name;
    size_t name_size;
    char *type;
    size_t type_size;

    void store(const char *mount_dir, const char *device, const char *fstype) const {
        Q_strlcpy(dir, mount_dir, dir_size);
        Q_strlcpy(name, device, name_size);
        Q_strlcpy(type, fstype, type_size);
    }
};

// Closes the mount table at the end of the scope.
class MountTable {
  public:
    MountTable() : stream_(setmntent(tf::path::mount_table, "r")) {}
    ~MountTable() {
        if (stream_ != nullptr) endmntent(stream_);
    }
    MountTable(const MountTable &) = delete;
    MountTable &operator=(const MountTable &) = delete;

    explicit operator bool() const { return stream_ != nullptr; }
    const mntent *next() { return getmntent(stream_); }
    // Whether the last line was read. The table may break off, and getmntent ends alike.
    bool read_to_the_end() const { return feof(stream_) != 0; }

  private:
    FILE *stream_;
};

// Types that hold no device of this host. The comparison is of whole names.
bool is_passed_over(const char *type) {
    return strcmp(type, "autofs") == 0 || strcmp(type, "lofs") == 0 || strcmp(type, "nfs") == 0;
}

// One entry of the table: into the cache when its device is new there, and into the answer when it
// is the wanted one. Returns whether it is.
bool take_entry(const mntent &entry, uint64_t wanted, const MountAnswer &answer) {
    if (is_passed_over(entry.mnt_type)) return false;
    struct stat status = {};
    if (stat(entry.mnt_dir, &status) != 0) {
        tf::log_trace("%s: Cannot stat() file %s", devtomp_reporter, entry.mnt_dir);
        return false;
    }
    if (cache.find(status.st_dev) == nullptr && !cache.add(status.st_dev, entry)) {
        mnttab_cached = 0;
    }
    if (status.st_dev != wanted) return false;
    answer.store(entry.mnt_dir, entry.mnt_fsname, entry.mnt_type);
    return true;
}

// Reads the whole table. The scan goes on behind a match, so that this look-up answers with the
// device's last line while the cache keeps its first one. Callers of one process compare answers
// of the cache with each other; that the first one may differ from them has to stay.
int32_t read_table(uint64_t dev, const MountAnswer &answer) {
    MountTable table;
    if (!table) {
        return tf::fail(tf::ErrorNumber::mount_table, tf::msg::cannot_open_mount_table,
                        devtomp_reporter);
    }
    mnttab_cached = 1;
    bool found = false;
    while (const mntent *entry = table.next()) {
        if (take_entry(*entry, dev, answer)) found = true;
    }
    // What was not read would count as not mounted for the rest of the process.
    if (!table.read_to_the_end()) mnttab_cached = 0;
    if (found) return tf::success;
    return tf::fail(tf::ErrorNumber::operation, tf::msg::cannot_find_mount_point, devtomp_reporter,
                    dev);
}

// The device number under which a path is looked up: of the device that holds it, or of the device
// that it is. False for a type that is neither.
bool device_of(const struct stat &status, uint64_t *dev) {
    switch (status.st_mode & S_IFMT) {
    case S_IFREG:
    case S_IFDIR:
    case S_IFIFO:
    case S_IFLNK:
    case S_IFSOCK:
        *dev = status.st_dev;
        return true;
    case S_IFCHR:
    case S_IFBLK:
        *dev = status.st_rdev;
        return true;
    default:
        return false;
    }
}

// Copies a device name with every run of slashes collapsed to one. out has room for all of it.
void copy_single_slashes(char *out, const char *name) {
    for (; *name != '\0'; ++name) {
        if (name[0] == '/' && name[1] == '/') continue;
        *out++ = *name;
    }
    *out = '\0';
}

}  // namespace

void tf::clear_mount_cache() {
    cache.clear();
}

int32_t ol_devtomp_find(uint64_t dev, char *dir, size_t dir_size, char *name, size_t name_size,
                        char *type, size_t type_size) {
    const mnttab_node *const node = cache.find(dev);
    if (node == nullptr) return 0;
    const MountAnswer answer = {dir, dir_size, name, name_size, type, type_size};
    answer.store(node->dir, node->name, node->type);
    return 1;
}

int32_t emc_tf__devtomp(uint64_t dev, char *dir, size_t dir_size, char *name, size_t name_size,
                        char *type, size_t type_size) {
    constexpr int32_t not_in_cache = 7;
    if (mnttab_cached != 0) {
        return ol_devtomp_find(dev, dir, dir_size, name, name_size, type, type_size) != 0
                   ? tf::success
                   : not_in_cache;
    }
    return read_table(dev, {dir, dir_size, name, name_size, type, type_size});
}

int32_t emc_tf__find_mount_device(const char *path, char *device, size_t device_size, char *type,
                                  size_t type_size, char *dir, size_t dir_size) {
    struct stat status = {};
    if (stat(path, &status) != 0) {
        return tf::fail(tf::ErrorNumber::operation, tf::msg::cannot_stat, find_reporter, path);
    }
    uint64_t dev = 0;
    if (!device_of(status, &dev)) {
        return tf::fail(tf::ErrorNumber::operation, tf::msg::unknown_device_type, find_reporter,
                        static_cast<int>(status.st_mode & S_IFMT), path);
    }
    char name[device_name_size] = {};
    if (emc_tf__devtomp(dev, dir, dir_size, name, sizeof name, type, type_size) != tf::success) {
        return tf::fail(tf::ErrorNumber::operation, tf::msg::cannot_find_device, find_reporter,
                        path);
    }
    // A name too long for the caller is reported as missing memory: error number 1 and that
    // message are what the framework knows of this case.
    if (strlen(name) >= device_size) {
        return tf::fail(tf::ErrorNumber::memory, tf::msg::no_memory, find_reporter,
                        name_too_long_line);
    }
    copy_single_slashes(device, name);
    return tf::success;
}
