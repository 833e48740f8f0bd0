#include "fuzz/support/machine.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz/support/command_line.h"
#include "fuzz/support/finding.h"
#include "fuzz/support/real_calls.h"
#include "method/paths.h"

namespace fuzz {
namespace {

thread_local Machine *current = nullptr;

// The fake's own descriptors stand far above those that the code under test is given.
constexpr int own_descriptors = 200;
constexpr unsigned patience = 100;
constexpr unsigned no_end = 5000;
constexpr size_t longest_path = 4095;

// Without the underscore behind it: the last two characters of a path are overwritten, and a serial
// number may have only one.
constexpr char counter_prefix[] = "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE";

int fresh_memory() {
    const int low = memfd_create("fuzz", MFD_CLOEXEC);
    const int fd = fcntl(low, F_DUPFD_CLOEXEC, own_descriptors);
    if (low < 0 || fd < 0) finding("no memory for a file of the fake machine");
    close(low);
    return fd;
}

int reopen(int fd, int flags) {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return __real_open(path, flags & ~(O_CREAT | O_EXCL | O_NOFOLLOW));
}

bool is_counter_file(const std::string &path) {
    return path.starts_with(counter_prefix) &&
           path.find('/', sizeof counter_prefix - 1) == std::string::npos;
}

std::bitset<watched_descriptors> open_descriptors() {
    std::bitset<watched_descriptors> open;
    for (size_t fd = 0; fd < open.size(); ++fd)
        open[fd] = fcntl(static_cast<int>(fd), F_GETFD) != -1;
    return open;
}

uint64_t hash(const std::string &text) {
    uint64_t value = 14695981039346656037U;
    for (const char c : text) value = (value ^ static_cast<unsigned char>(c)) * 1099511628211U;
    return value ^ (value >> 32);
}

bool is_node(const std::string &path) {
    return path.starts_with("/dev/") && path.size() > 5;
}

}  // namespace

void finding(const char *format, ...) {
    current = nullptr;
    va_list args;
    va_start(args, format);
    fputs("finding: ", stderr);
    vfprintf(stderr, format, args);
    fputs("\n", stderr);
    va_end(args);
    abort();
}

Machine *machine() {
    return current;
}

uint64_t device_number(const std::string &path) {
    const size_t end = path.find('/', 1);
    return 1 + hash(path.substr(0, end)) % 60;
}

RealCalls::RealCalls() : kept_(current) {
    current = nullptr;
}
RealCalls::~RealCalls() {
    current = kept_;
}

Machine::Machine() : descriptors_(open_descriptors()) {
    current = this;
}

Machine::~Machine() {
    current = nullptr;
    for (const auto &[path, fd] : files_) close(fd);
    if (open_descriptors() != descriptors_) finding("a descriptor was left open, or closed twice");
}

void Machine::put_file(const std::string &path, const std::string &text) {
    remove_file(path);
    const int fd = fresh_memory();
    files_[path] = fd;
    if (pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        finding("cannot write a file of the fake machine");
    }
}

std::string Machine::file(const std::string &path) const {
    std::string text;
    const auto found = files_.find(path);
    if (found == files_.end()) return text;
    struct stat status = {};
    __real_fstat(found->second, &status);
    text.resize(static_cast<size_t>(status.st_size));
    const ssize_t got = pread(found->second, text.data(), text.size(), 0);
    text.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return text;
}

void Machine::remove_file(const std::string &path) {
    const auto found = files_.find(path);
    if (found == files_.end()) return;
    close(found->second);
    files_.erase(found);
}

std::vector<std::string> Machine::temporary_files() const {
    std::vector<std::string> left;
    for (const std::string &name : temporary_names_) {
        if (files_.contains(name)) left.push_back(name);
    }
    return left;
}

bool Machine::may_create(const std::string &path) const {
    return temporary_names_.contains(path) || path == tf::path::host_lock_file ||
           is_counter_file(path);
}

int Machine::open_file(const char *path, int flags, mode_t mode) {
    if ((flags & O_CLOEXEC) == 0) finding("open without close-on-exec: %s", path);
    const auto found = files_.find(path);
    if (found != files_.end()) {
        if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
            errno = EEXIST;
            return -1;
        }
        return reopen(found->second, flags);
    }
    struct stat status = {};
    const bool is_there = describe(path, &status);
    if (!is_there && (flags & O_CREAT) == 0) return -1;
    if (is_there) {
        if ((flags & O_ACCMODE) != O_RDONLY) finding("writes into %s", path);
        return __real_open(tf::path::null_device, O_RDONLY | O_CLOEXEC);
    }
    if (errno != ENOENT || path[0] == '\0') return -1;
    if (!may_create(path)) finding("creates %s", path);
    if (mode != 0600) finding("creates %s with mode %o", path, mode);
    put_file(path, "");
    return reopen(files_[path], flags);
}

// What is no file here is a folder, unless its name says that it is gone; below /dev are nodes, and
// of programs only those that are installed.
bool Machine::describe(const char *path, struct stat *status) const {
    *status = {};
    const std::string name = path;
    errno = name.size() > longest_path ? ENAMETOOLONG : ENOENT;
    if (name.empty() || name[0] != '/' || errno == ENAMETOOLONG) return false;
    status->st_nlink = 1;
    status->st_uid = geteuid();
    status->st_dev = device_number(name);
    if (files_.contains(name)) {
        status->st_mode = S_IFREG | 0600;
        return true;
    }
    if (name.find("gone") != std::string::npos || may_create(name)) return false;
    if (name.starts_with("/usr/")) {
        status->st_mode = S_IFREG | 0755;
        return installed.contains(name);
    }
    if (is_node(name)) {
        const bool raw =
            name.find("/rdsk/") != std::string::npos || name.find("/rdmp/") != std::string::npos;
        status->st_mode = (raw ? S_IFCHR : S_IFBLK) | 0600;
        status->st_rdev = 100 + hash(name) % 60;
        return true;
    }
    status->st_mode = S_IFDIR | 0755;
    return true;
}

int Machine::unlink_file(const char *path) {
    if (!temporary_names_.contains(path) && !is_counter_file(path) && !may_unlink.contains(path)) {
        finding("deletes %s", path);
    }
    if (files_.contains(path)) {
        remove_file(path);
        return 0;
    }
    errno = ENOENT;
    return -1;
}

char *Machine::new_temporary_name(const char *prefix) {
    const std::string name =
        temporary_folder + "/" + prefix + std::to_string(temporary_names_.size());
    temporary_names_.insert(name);
    return strdup(name.c_str());
}

Answer Machine::answer(const Words &words) {
    commands.push_back(words);
    return on_command ? on_command(words) : Answer{};
}

// What the shell does with a stream: it follows and truncates whatever stands there.
void Machine::deliver(const std::string &stream, const std::string &output, const char *line) {
    if (stream.empty() || stream == tf::path::null_device) return;
    if (!temporary_names_.contains(stream)) finding("output into %s: %s", stream.c_str(), line);
    put_file(stream, output);
}

int Machine::run(const char *line) {
    const CommandLine parsed = parse_command_line(line);
    const bool by_the_runner = parsed.words[0] != "/usr/sbin/lockfs";
    if (by_the_runner && parsed.in != tf::path::null_device) {
        finding("a command that could wait for input: %s", line);
    }
    const Answer given = answer(parsed.words);
    deliver(parsed.out, given.output, line);
    deliver(parsed.err, "", line);
    return given.status << 8;
}

std::string Machine::run_for_output(const char *line) {
    const CommandLine parsed = parse_command_line(line);
    if (!parsed.in.empty() || !parsed.out.empty() || !parsed.err.empty()) {
        finding("a redirection in a pipe: %s", line);
    }
    return answer(parsed.words).output;
}

void Machine::pause() {
    ++pauses_;
    if (pauses_ == patience && on_patience_lost) on_patience_lost();
    if (pauses_ > no_end) finding("waits without end");
}

}  // namespace fuzz
