// The counter file of an array: one set and one clear against the same system calls without the
// method around them, alone and by many processes at once.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "bench/kit/comparison.h"
#include "bench/kit/statistics.h"
#include "include/records.h"
#include "method/lock_file.h"
#include "method/paths.h"
#include "method/text.h"
#include "tests/support/private_root.h"

namespace {

constexpr char counter_file[] = "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_1";
constexpr mode_t lock_mode = 0666;

void change_by_method(int mode) {
    static prim_mir_info pm;
    tf::put(pm.lock_file, counter_file);
    // A file of another process is refused for as long as that lives.
    for (;;) {
        int lock = -1;
        const int fd = open_lock_file(pm.lock_file, &lock);
        if (fd < 0) continue;
        if (change_counter(&pm, fd, mode) != 0) abort();
        close(fd);
        close(lock);
        return;
    }
}

void write_field(int fd, int32_t value) {
    if (write(fd, &value, sizeof value) != sizeof value) abort();
}

void change_by_calls(bool increment) {
    for (;;) {
        const int lock = open(tf::path::host_lock_file,
                              O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, lock_mode);
        struct flock whole = {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        if (lock < 0 || fcntl(lock, F_SETLKW, &whole) != 0) abort();
        const int fd =
            open(counter_file, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, lock_mode);
        int32_t owner = 0, count = 0, flag = 0;
        if (fd < 0) abort();
        const bool owned = read(fd, &owner, sizeof owner) == sizeof owner && owner != 0;
        if (owned && owner != getpid()) {
            if (getpgid(owner) == -1) {
                if (ftruncate(fd, 0) != 0) abort();
            } else {
                close(fd);
                close(lock);
                continue;
            }
        }
        lseek(fd, 0, SEEK_SET);
        if (read(fd, &owner, sizeof owner) < 0 || read(fd, &count, sizeof count) < 0 ||
            read(fd, &flag, sizeof flag) < 0) {
            abort();
        }
        count += increment ? 1 : -1;
        lseek(fd, 0, SEEK_SET);
        write_field(fd, getpid());
        write_field(fd, count);
        write_field(fd, 1);
        if (count == 0) {
            if (ftruncate(fd, 0) != 0 || unlink(counter_file) != 0) abort();
        }
        close(fd);
        close(lock);
        return;
    }
}

void by_method() {
    change_by_method(TF_LOCK_SET);
    change_by_method(TF_LOCK_CLEAR);
}
void by_calls() {
    change_by_calls(true);
    change_by_calls(false);
}

// Seconds that so many processes take for this many rounds, all together.
double contend(int processes, int rounds, void (*round)()) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < processes; ++i) {
        if (fork() != 0) continue;
        for (int k = 0; k < rounds / processes; ++k) round();
        _exit(0);
    }
    for (int i = 0; i < processes; ++i) {
        int status = 0;
        if (wait(&status) < 0 || status != 0) abort();
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    return wall.count();
}

// Each way, and the bare loop once more: what that makes of itself is what two runs of the same
// differ by.
struct Way {
    void (*round)();
    std::vector<double> seconds;
};

bool print_contention(int processes) {
    constexpr int rounds = 2048, repetitions = 27;
    Way ways[] = {{by_method, {}}, {by_calls, {}}, {by_calls, {}}};
    for (size_t i = 0; i < repetitions; ++i) {
        // In turn, and each as often first as last.
        for (size_t k = 0; k < std::size(ways); ++k) {
            Way &way = ways[(i + k) % std::size(ways)];
            way.seconds.push_back(contend(processes, rounds, way.round));
        }
    }
    bench::Result result;
    result.row = "lock file";
    result.what = "set and clear, " + std::to_string(processes) + " processes";
    result.measure = "wall time";
    result.subject = "the method";
    result.against = "bare calls";
    result.ratio = bench::median_ratio(ways[0].seconds, ways[1].seconds);
    result.target = 1.1;
    const auto noise = bench::ratios(ways[2].seconds, ways[1].seconds);
    result.beside = {{"bare calls to themselves", bench::median(noise)},
                     {"in a quarter of the turns at least", bench::upper_quartile(noise)}};
    return bench::print(result);
}

}  // namespace

int main(int argc, char **argv) {
    test::enter_private_root();
    test::make_folders("/usr/quill/tessera/online_util/fi_cntl");
    test::make_folders("/usr/quill/tessera/online_util/db_cntl");
    bench::Comparisons all("lock file", argc, argv);
    all.within("set and clear, 1 process", {"the method", by_method}, {{"bare calls", by_calls}},
               1.1);
    int status = all.run();
    for (const int processes : {2, 8, 32}) {
        if (all.measures("processes") && !print_contention(processes)) status = 1;
    }
    return status;
}
