// Every length that a counter file can have, every kind of owner, counts around the odd ones, set
// and clear. What has to come of each is worked out here from the meaning of the fields alone.
#include "proof/locks/files.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "method/lock_file.h"
#include "method/text.h"
#include "proof/locks/machine.h"

namespace locks {
namespace {

constexpr size_t whole_file = 12;
constexpr size_t longest_file = 13;
constexpr int array = 1;

enum class Owner { none, own, dead, zombie, live, init, negative, lowest };
constexpr const char *owner_names[] = {"nobody", "own",       "dead",     "unreaped",
                                       "live",   "process 1", "negative", "lowest"};
constexpr int32_t counts[] = {1, 5, 0, -1, INT_MAX, INT_MIN, INT_MIN + 1};
constexpr int32_t flags[] = {0, 1, 7};

struct FilePoint {
    size_t length = 0;
    Owner owner = Owner::none;
    int32_t count = 0;
    int32_t flag = 0;
    bool set = true;

    std::string name() const {
        return "file/" + std::to_string(length) + " bytes/" + owner_names[static_cast<int>(owner)] +
               "/count " + std::to_string(count) + "/flag " + std::to_string(flag) +
               (set ? "/set" : "/clear");
    }
};

std::vector<FilePoint> all_points() {
    std::vector<FilePoint> points;
    for (size_t length = 0; length <= longest_file; ++length) {
        for (int owner = 0; owner <= static_cast<int>(Owner::lowest); ++owner) {
            for (const int32_t count : counts) {
                // What is cut off before the count or the flag does not hold it.
                if (length <= 4 && count != counts[0]) continue;
                for (const int32_t flag : flags) {
                    if (length <= 8 && flag != flags[0]) continue;
                    for (const bool set : {true, false}) {
                        points.push_back({length, static_cast<Owner>(owner), count, flag, set});
                    }
                }
            }
        }
    }
    return points;
}

// The owners of the points, made once.
struct Owners {
    Owners() { zombie.kill_it(); }
    pid_t of(Owner owner) {
        switch (owner) {
        case Owner::none:
            return 0;
        case Owner::own:
            return getpid();
        case Owner::dead:
            return dead_pid;
        case Owner::zombie:
            return zombie.pid();
        case Owner::live:
            return live.pid();
        case Owner::init:
            return 1;
        case Owner::negative:
            return -5;
        case Owner::lowest:
            return INT_MIN;
        }
        return 0;
    }
    static pid_t ended() {
        Idler one;
        return one.pid();
    }
    pid_t dead_pid = ended();
    Idler live, zombie;
};

struct Result {
    int status = 0;
    bool file_is_there = true;
    std::string bytes;
    int32_t issplit = 0;
    std::string line;  // the last one logged at level 0; "" for none

    bool operator==(const Result &) const = default;
    std::string text() const {
        std::ostringstream out;
        out << "status " << status << ", issplit " << issplit << ", line \"" << line << "\", ";
        if (!file_is_there) return out.str() + "no file";
        out << bytes.size() << " bytes:" << std::hex;
        for (const char byte : bytes) out << " " << (byte & 0xff);
        return out.str();
    }
};

constexpr int32_t untouched = 77;

int32_t field(const std::string &bytes, size_t offset) {
    int32_t value = 0;
    if (bytes.size() >= offset + 4) memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

// A process that exists, ended or not, keeps its file; one that cannot exist has none to keep.
bool counts_as_gone(Owner owner) {
    return owner == Owner::dead || owner == Owner::negative || owner == Owner::lowest;
}

Result expected(const FilePoint &point, std::string bytes, const std::string &path) {
    Result result;
    result.issplit = untouched;
    const int32_t pid = field(bytes, 0);
    if (pid != 0 && pid != getpid()) {
        if (!counts_as_gone(point.owner)) {
            result.status = -1;
            result.bytes = bytes;
            result.line = "lock pid(" + std::to_string(pid) + ") != pid(" +
                          std::to_string(getpid()) + "): " + path;
            return result;
        }
        bytes.clear();
    }
    if (bytes.size() < 8 && !point.set) {
        result.status = -1;
        result.bytes = bytes;
        result.line = "could not decrement counter....counter missing from file: " + path;
        return result;
    }
    const uint32_t count = static_cast<uint32_t>(field(bytes, 4)) + (point.set ? 1U : 0xffffffffU);
    result.issplit = field(bytes, 8);
    if (count == 0) {
        result.file_is_there = false;
        return result;
    }
    const std::string rest = bytes.size() > whole_file ? bytes.substr(whole_file) : "";
    result.bytes = bytes_of(getpid(), static_cast<int32_t>(count), 1) + rest;
    return result;
}

Result seen(const FilePoint &point, const std::string &path) {
    prim_mir_info pm = {};
    tf::put(pm.dev_raw_device, ("/dev/" + serial_of(array)).c_str());
    tf::put(pm.lock_file, path.c_str());
    pm.issplit = untouched;
    forget_log();
    Result result;
    result.status = change(&pm, point.set ? TF_LOCK_SET : TF_LOCK_CLEAR);
    result.file_is_there = exists(path);
    result.bytes = read_all(path);
    result.issplit = pm.issplit;
    result.line = last_line();
    return result;
}

Owners &owners() {
    static Owners all;
    return all;
}

}  // namespace

std::vector<std::string> file_points() {
    std::vector<std::string> names;
    for (const FilePoint &point : all_points()) names.push_back(point.name());
    return names;
}

std::string try_file_point(const std::string &name) {
    for (const FilePoint &point : all_points()) {
        if (point.name() != name) continue;
        const std::string path = counter_file(array);
        std::string bytes = bytes_of(owners().of(point.owner), point.count, point.flag) + "+";
        bytes.resize(point.length);
        write_all(path, bytes);
        const Result want = expected(point, bytes, path), got = seen(point, path);
        unlink(path.c_str());
        return want == got ? "" : "expected " + want.text() + "; seen " + got.text();
    }
    throw std::runtime_error("there is no point " + name);
}

// The kernel gives a process id out again. A counter file knows its owner by that number alone, so
// a stranger keeps the file for as long as it lives, and the same number takes it for its own.

namespace {

constexpr const char *reuse_names[] = {"reuse/by a stranger", "reuse/by the one that asks"};

// The next process of this process's pid namespace gets that id.
void next_pid(pid_t pid) {
    const std::string text = std::to_string(pid - 1);
    const int fd = open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) < 0) {
        throw std::runtime_error("cannot choose a process id");
    }
    close(fd);
}

// What a child answers by its status: 0 holds.
int in_child(int (*action)(const std::string &), const std::string &path) {
    const pid_t pid = fork();
    if (pid == 0) _exit(action(path));
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
}

int set_three_times(const std::string &path) {
    prim_mir_info pm = {};
    tf::put(pm.lock_file, path.c_str());
    for (int i = 0; i < 3; ++i) {
        if (change(&pm, TF_LOCK_SET) != 0) return 1;
    }
    return 0;
}

int set_is_refused(const std::string &path) {
    const std::string before = read_all(path);
    prim_mir_info pm = {};
    tf::put(pm.lock_file, path.c_str());
    return change(&pm, TF_LOCK_SET) == -1 && read_all(path) == before ? 0 : 1;
}

int set_goes_on(const std::string &path) {
    prim_mir_info pm = {};
    tf::put(pm.lock_file, path.c_str());
    if (change(&pm, TF_LOCK_SET) != 0 || pm.issplit != 1) return 1;
    return read_all(path) == bytes_of(getpid(), 4, 1) ? 0 : 2;
}

// Runs in a pid namespace of its own.
int reuse(const std::string &name) {
    const std::string path = counter_file(array);
    const int first = in_child(set_three_times, path);
    const pid_t owner = field(read_all(path), 0);
    if (first != 0 || owner <= 1) return 10;
    next_pid(owner);
    if (name == reuse_names[1]) return in_child(set_goes_on, path);
    const Idler stranger;
    return stranger.pid() == owner ? in_child(set_is_refused, path) : 11;
}

}  // namespace

std::vector<std::string> reuse_points() {
    return {std::begin(reuse_names), std::end(reuse_names)};
}

std::string try_reuse_point(const std::string &point) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWPID) != 0) _exit(12);
        const pid_t first = fork();
        if (first == 0) _exit(reuse(point));
        int status = 0;
        waitpid(first, &status, 0);
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 13);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    unlink(counter_file(array).c_str());
    return status == 0 ? "" : "ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace locks
