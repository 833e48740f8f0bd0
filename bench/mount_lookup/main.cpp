// Which mount holds a path, with 10 to 10,000 mounts: the method's table against libmount's.
#include <libmount/libmount.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "bench/kit/comparison.h"
#include "bench/kit/statistics.h"
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

constexpr char row[] = "mount look-up";

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

void first_by_method(uint64_t dev) {
    tf::clear_mount_cache();
    look_up(dev);
}

double cpu_seconds() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// CPU seconds a mount that a first look-up takes, of so many mounts in all. The table is written.
// Each is made in a process of its own, where it is the first indeed: its memory comes from the
// kernel, while a process that goes on keeps that of a small table and gives that of a large one
// back, which would count as growth.
double cost_per_mount(void (*first)(uint64_t), int mounts, int looked_through) {
    static double *const seconds = static_cast<double *>(
        mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    *seconds = 0;
    const int times = looked_through / mounts;
    for (int i = 0; i < times; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            const double begin = cpu_seconds();
            first(static_cast<uint64_t>(mounts / 2));
            *seconds += cpu_seconds() - begin;
            _exit(0);
        }
        int status = 0;
        if (waitpid(pid, &status, 0) != pid || status != 0) abort();
    }
    return *seconds / (times * mounts);
}

// What a mount costs among many, and among few: no step looks at all mounts for each mount.
bool print_growth(int few, int many) {
    constexpr int repetitions = 15;
    std::vector<double> method[2], libmount[2];
    const int sizes[] = {few, many};
    tf::clear_mount_cache();  // or each process would have that of the last table to free
    for (int i = 0; i < repetitions; ++i) {
        for (size_t k = 0; k < 2; ++k) {
            write_table(sizes[k]);
            method[k].push_back(cost_per_mount(first_by_method, sizes[k], 2 * many));
            libmount[k].push_back(cost_per_mount(first_by_libmount, sizes[k], 2 * many));
        }
    }
    bench::Result result;
    result.row = row;
    result.what = "first, " + std::to_string(many) + " mounts";
    result.measure = "CPU time per mount";
    result.subject = "the method";
    result.against = "itself with " + std::to_string(few);
    result.ratio = bench::median_ratio(method[1], method[0]);
    result.target = 1.3;
    result.beside = {{"libmount and stat", bench::median_ratio(libmount[1], libmount[0])}};
    return bench::print(result);
}

}  // namespace

int main(int argc, char **argv) {
    test::enter_private_root();
    int status = 0;
    // One size after the other: the table is the host's one mount table.
    for (const int mounts : {10, 1000, 10000}) {
        bench::Comparisons all(row, argc, argv);
        write_table(mounts);
        const auto middle = static_cast<uint64_t>(mounts / 2);
        const auto table = std::make_shared<Table>();
        // Comparisons run in any order, and a cached look-up needs the cache of this table.
        tf::clear_mount_cache();
        look_up(middle);
        const std::string size = ", " + std::to_string(mounts) + " mounts";
        all.within("first" + size, {"the method", [=] { first_by_method(middle); }},
                   {{"libmount and stat", [=] { first_by_libmount(middle); }}}, 1.0);
        all.ahead("cached" + size, {"the method", [=] { look_up(middle); }},
                  {{"libmount", [=] { cached_by_libmount(*table, directory(mounts / 2)); }}},
                  mounts >= 1000 ? std::optional(10.0) : std::nullopt);
        status |= all.run();
        if (mounts == 10000 && all.measures("per mount") && !print_growth(1000, mounts)) status = 1;
    }
    return status;
}
