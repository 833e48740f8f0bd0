#include "fimctl/inspect/lock_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "fimctl/failure.h"
#include "fimctl/paths.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

constexpr char counter_prefix[] = "__LOCKFILE_";
// Between the start of a process and its first write there is time, but the system counts the
// former in ticks since boot and the latter by the clock: they may differ by a little.
constexpr time_t clock_slack = 2;

struct Descriptor {
    explicit Descriptor(int fd) : number(fd) {}
    ~Descriptor() {
        if (number >= 0) close(number);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    const int number;
};

// The whole file, for writing: what the method asks for.
struct flock whole_file() {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

void read_counter(int file, CounterFile &counter) {
    int32_t fields[3] = {};
    const ssize_t got = pread(file, fields, sizeof fields, 0);
    if (got < 0) {
        counter.trouble = strerror(errno);
        return;
    }
    constexpr ssize_t field = sizeof(int32_t);
    if (got >= field) counter.pid = fields[0];
    counter.has_count = got >= 2 * field;
    if (counter.has_count) counter.count = fields[1];
    counter.is_split = got >= 3 * field && fields[2] != 0;
}

void look_at_owner(CounterFile &counter) {
    if (counter.pid == 0) return;
    counter.owner = Owner::gone;
    if (!is_alive(counter.pid)) return;
    counter.process = process_info(counter.pid);
    const time_t started = counter.process.started;
    counter.owner = started > counter.written + clock_slack ? Owner::replaced : Owner::alive;
}

}  // namespace

const char *name_of(Owner owner) {
    switch (owner) {
    case Owner::nobody:
        return "nobody";
    case Owner::alive:
        return "alive";
    case Owner::gone:
        return "gone";
    case Owner::replaced:
        return "replaced";
    }
    return "unknown";
}

time_t CounterFile::since() const {
    return owner == Owner::alive && process.started != 0 ? process.started : written;
}

std::string CounterFile::advice() const {
    const std::string number = std::to_string(pid);
    if (!trouble.empty()) return "look at the file: ls -l " + shell_word(path);
    switch (owner) {
    case Owner::nobody:
        return "nothing to do: it is free";
    case Owner::alive:
        return "wait until process " + number + " has ended; fimctl list shows its snapshot if " +
               "fimctl has begun it";
    case Owner::gone:
        return "nothing to do: the next step of a snapshot on this array takes it over (where no "
               "snapshot lies on the array, fimctl cleanup removes it)";
    case Owner::replaced:
        return "its owner has ended, and process " + number +
               " only has the same number; the method cannot know that: rm " + shell_word(path);
    }
    return "";
}

HostLock read_host_lock() {
    HostLock lock;
    lock.path = path::host_lock_file;
    const Descriptor file(open(lock.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.number < 0) {
        if (errno != ENOENT && errno != ENOTDIR) lock.trouble = strerror(errno);
        return lock;
    }
    lock.exists = true;
    struct flock asked = whole_file();
    if (fcntl(file.number, F_GETLK, &asked) != 0) {
        lock.trouble = strerror(errno);
    } else if (asked.l_type != F_UNLCK) {
        lock.holder = asked.l_pid;
        lock.process = process_info(asked.l_pid);
    }
    return lock;
}

CounterFile read_counter_file(const std::string &path) {
    CounterFile counter;
    counter.path = path;
    counter.group = fs::path(path).filename().string().substr(strlen(counter_prefix));
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (file.number < 0 || fstat(file.number, &status) != 0) {
        counter.trouble = strerror(errno);
        return counter;
    }
    if (!S_ISREG(status.st_mode)) {
        counter.trouble = "not a regular file";
        return counter;
    }
    counter.size = status.st_size;
    counter.written = status.st_mtime;
    read_counter(file.number, counter);
    look_at_owner(counter);
    return counter;
}

std::vector<CounterFile> read_counter_files() {
    std::vector<CounterFile> counters;
    std::error_code error;
    for (fs::directory_iterator entry(path::counter_folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (name.compare(0, strlen(counter_prefix), counter_prefix) != 0) continue;
        counters.push_back(read_counter_file(entry->path()));
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        throw Failure(
            Step::inspect,
            error == std::errc::permission_denied ? ExitCode::permission : ExitCode::failed,
            std::string(path::counter_folder) + ": " + error.message());
    }
    std::sort(counters.begin(), counters.end(),
              [](const CounterFile &a, const CounterFile &b) { return a.path < b.path; });
    return counters;
}

std::string counter_file_of(const std::string &serial) {
    std::string file = std::string(path::counter_folder) + "/" + counter_prefix + serial;
    file.replace(file.size() - 2, 2, "00");
    return file;
}

bool remove_left_counter(const std::string &path, std::string &why) {
    const Descriptor lock(
        open(path::host_lock_file, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct flock wanted = whole_file();
    if (lock.number < 0 || fcntl(lock.number, F_SETLK, &wanted) != 0) {
        const bool held = lock.number >= 0 && (errno == EAGAIN || errno == EACCES);
        why = held ? "a process is changing the counter files just now" : strerror(errno);
        return false;
    }
    const CounterFile counter = read_counter_file(path);
    if (!counter.trouble.empty() || counter.owner != Owner::gone) {
        why = counter.trouble.empty() ? counter.advice() : counter.trouble;
        return false;
    }
    if (truncate(path.c_str(), 0) == 0 && unlink(path.c_str()) == 0) return true;
    why = strerror(errno);
    return false;
}

}  // namespace fimctl
