// Which mount holds a path, with 10 to 10,000 mounts: the method's table against libmount's.
#include <libmount/libmount.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "bench/kit/comparison.h"
#include "method/mount_lookup.h"
#include "tests/support/private_root.h"

// Mount directories that are not there: the call is made, and the number at the end of the name
// stands for the device.
extern "C" int __real_stat(const char *path, struct stat *status);
extern "C" int __wrap_stat(const char *path, struct stat *status);
int __wrap_stat(const char *path, struct stat *status) {
    if (__real_stat("/", status) != 0) return -1;
    status->st_dev = strtoul(path + strcspn(path, "0123456789"), nullptr, 10);
    return 0;
}

namespace {

std::string directory(int i) {
    return "/m/directory" + std::to_string(i);
}

void write_table(int mounts) {
    std::string text;
    for (int i = 1; i <= mounts; ++i) {
        text += "/dev/disk" + std::to_string(i) + " " + directory(i) +
                " ext4 rw,relatime,errors=remount-ro 0 0\n";
    }
    test::write_mount_table(text);
}

char dir[1024], name[1024], type[1024];

void look_up(uint64_t dev) {
    if (emc_tf__devtomp(dev, dir, sizeof dir, name, sizeof name, type, sizeof type) != 0) abort();
}

struct Table {
    Table() : table(mnt_new_table_from_file("/etc/mtab")) {
        if (table == nullptr) abort();
    }
    ~Table() { mnt_unref_table(table); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;
    libmnt_table *table;
};

// Reads the table, asks for every directory's device, and copies the answer.
void first_by_libmount(uint64_t dev) {
    const Table table;
    libmnt_iter *walk = mnt_new_iter(MNT_ITER_FORWARD);
    libmnt_fs *entry = nullptr;
    bool found = false;
    while (mnt_table_next_fs(table.table, walk, &entry) == 0) {
        struct stat status;
        if (stat(mnt_fs_get_target(entry), &status) != 0 || status.st_dev != dev) continue;
        found = true;
        strncpy(dir, mnt_fs_get_target(entry), sizeof dir - 1);
        strncpy(name, mnt_fs_get_source(entry), sizeof name - 1);
        strncpy(type, mnt_fs_get_fstype(entry), sizeof type - 1);
    }
    mnt_free_iter(walk);
    if (!found) abort();
}

void cached_by_libmount(const Table &table, const std::string &wanted) {
    libmnt_fs *entry = mnt_table_find_target(table.table, wanted.c_str(), MNT_ITER_FORWARD);
    if (entry == nullptr) abort();
    strncpy(dir, mnt_fs_get_target(entry), sizeof dir - 1);
    strncpy(name, mnt_fs_get_source(entry), sizeof name - 1);
    strncpy(type, mnt_fs_get_fstype(entry), sizeof type - 1);
}

}  // namespace

int main(int argc, char **argv) {
    test::enter_private_root();
    int status = 0;
    // One size after the other: the table is the host's one mount table.
    for (const int mounts : {10, 1000, 10000}) {
        bench::Comparisons all("mount look-up", argc, argv);
        write_table(mounts);
        const auto middle = static_cast<uint64_t>(mounts / 2);
        const auto table = std::make_shared<Table>();
        // Comparisons run in any order, and a cached look-up needs the cache of this table.
        tf::clear_mount_cache();
        look_up(middle);
        const std::string size = ", " + std::to_string(mounts) + " mounts";
        all.within("first" + size,
                   {"the method",
                    [=] {
                        tf::clear_mount_cache();
                        look_up(middle);
                    }},
                   {{"libmount and stat", [=] { first_by_libmount(middle); }}}, 1.0);
        all.ahead("cached" + size, {"the method", [=] { look_up(middle); }},
                  {{"libmount", [=] { cached_by_libmount(*table, directory(mounts / 2)); }}},
                  mounts >= 1000 ? std::optional(10.0) : std::nullopt);
        status |= all.run();
    }
    return status;
}
