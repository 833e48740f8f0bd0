#include "lab/host/system.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <system_error>

namespace tflab {

constexpr int setup_failed = 125;
constexpr int ended_by_signal = 128;

void fails(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), "cannot " + what);
}

Fd &Fd::operator=(Fd &&other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
}

int Fd::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void Fd::reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
}

Fd open_file(const fs::path &path, int flags, mode_t mode) {
    Fd fd(open(path.c_str(), flags | O_CLOEXEC, mode));
    if (fd.get() < 0) fails("open " + path.string());
    return fd;
}

Pipe make_pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fails("make a pipe");
    return {Fd(ends[0]), Fd(ends[1])};
}

void make_folder(const fs::path &path) {
    std::error_code error;
    fs::create_directories(path, error);
    if (error) throw std::system_error(error, "cannot make " + path.string());
}

void write_text(const fs::path &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) fails("write " + path.string());
}

std::string read_text(const fs::path &path) {
    // Of the kernel's files some fail in the middle, such as one of a device that goes meanwhile.
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    char part[4096];
    for (ssize_t size; (size = read(file.get(), part, sizeof part)) > 0;) {
        text.append(part, static_cast<size_t>(size));
    }
    return text;
}

namespace {

void do_mount(const char *source, const fs::path &target, const char *type, unsigned long flags,
              const char *options) {
    if (mount(source, target.c_str(), type, flags, options) != 0) {
        fails("mount " + target.string());
    }
}

}  // namespace

void mount_tmpfs(const fs::path &target, const std::string &options) {
    do_mount("tmpfs", target, "tmpfs", 0, options.c_str());
}

void mount_bind(const fs::path &source, const fs::path &target) {
    do_mount(source.c_str(), target, nullptr, MS_BIND, nullptr);
}

void mount_new(const std::string &type, const fs::path &target, unsigned long flags,
               const std::string &options) {
    do_mount(type.c_str(), target, type.c_str(), flags, options.c_str());
}

pid_t fork_into(unsigned long namespaces, const std::function<int()> &body) {
    // What stands in the buffers would be written by both.
    fflush(nullptr);
    const long pid = syscall(SYS_clone, namespaces | SIGCHLD, nullptr, nullptr, nullptr, nullptr);
    if (pid < 0) fails("start a process of its own (this needs root)");
    if (pid > 0) return static_cast<pid_t>(pid);
    int status = setup_failed;
    try {
        status = body();
    } catch (const std::exception &error) {
        fprintf(stderr, "tflab: %s\n", error.what());
    }
    fflush(nullptr);
    _exit(status);
}

void die_with_parent(int life) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd end = {life, POLLIN, 0};
    if (poll(&end, 1, 0) > 0) _exit(setup_failed);
}

void die_with_any_parent() {
    const pid_t parent = getppid();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(setup_failed);
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) != pid) {
        if (errno != EINTR) fails("wait for a process");
    }
    return WIFSIGNALED(status) ? ended_by_signal + WTERMSIG(status) : WEXITSTATUS(status);
}

namespace {

std::vector<char *> pointers(const std::vector<std::string> &words) {
    std::vector<char *> all;
    for (const std::string &word : words) all.push_back(const_cast<char *>(word.c_str()));
    all.push_back(nullptr);
    return all;
}

}  // namespace

void execute(const std::vector<std::string> &command, const std::vector<std::string> &environment) {
    const std::vector<char *> arguments = pointers(command), variables = pointers(environment);
    // The program is looked for along the PATH that it will have itself.
    environ = const_cast<char **>(variables.data());
    execvp(arguments[0], arguments.data());
    fails("run " + command[0]);
}

int run(const std::vector<std::string> &command, const fs::path &log) {
    return wait_for(fork_into(0, [&command, &log] {
        if (!log.empty()) {
            const Fd out = open_file(log, O_WRONLY | O_CREAT | O_APPEND);
            dup2(out.get(), STDOUT_FILENO);
            dup2(out.get(), STDERR_FILENO);
        }
        execute(command, own_environment());
        return setup_failed;
    }));
}

std::vector<std::string> own_environment() {
    std::vector<std::string> all;
    for (char **variable = environ; *variable != nullptr; ++variable) all.emplace_back(*variable);
    return all;
}

}  // namespace tflab
