// The system calls of the lab's hosts, with errors as exceptions and owners for descriptors.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace tflab {

namespace fs = std::filesystem;

// Throws std::system_error with errno's text: "cannot WHAT: REASON".
[[noreturn]] void fails(const std::string &what);

// A descriptor; -1 is none.
class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    int release();
    void reset(int fd = -1);

  private:
    int fd_;
};

// Opens close-on-exec; throws when that is impossible.
Fd open_file(const fs::path &path, int flags, mode_t mode = 0600);

struct Pipe {
    Fd read, write;
};
Pipe make_pipe();

void make_folder(const fs::path &path);
void write_text(const fs::path &path, const std::string &text);
std::string read_text(const fs::path &path);  // "" when it cannot be read

void mount_tmpfs(const fs::path &target, const std::string &options);
void mount_bind(const fs::path &source, const fs::path &target);
void mount_new(const std::string &type, const fs::path &target, unsigned long flags,
               const std::string &options = "");

// Forks into new namespaces (CLONE_NEW* flags) and runs body there; its result is the exit status.
// An exception of the body is printed and is status 125.
pid_t fork_into(unsigned long namespaces, const std::function<int()> &body);

// The calling process is killed when its parent ends, now or later. life is the reading end of a
// pipe whose only writing end the parent holds: it tells a parent that ended before the call.
void die_with_parent(int life);
// The same for a parent that is not known to lab code.
void die_with_any_parent();

// Waits for a child: its exit status, or 128 and the signal's number.
int wait_for(pid_t pid);

// Replaces the process by the program. Throws when it cannot be run.
[[noreturn]] void execute(const std::vector<std::string> &command,
                          const std::vector<std::string> &environment);
// Runs a program to its end with the given environment and its output into a log file (or nowhere
// else than ours when the path is empty): its exit status.
int run(const std::vector<std::string> &command, const fs::path &log = {});
// The environment of this process.
std::vector<std::string> own_environment();

}  // namespace tflab
