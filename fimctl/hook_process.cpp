#include "fimctl/hook_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fimctl/log.h"
#include "fimctl/progress.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int not_started = 127;
constexpr int look_around_ms = 100;
constexpr auto grace = std::chrono::seconds(2);
constexpr size_t longest_line = 1000;

std::string why_owned_badly(const struct stat &status) {
    if (status.st_uid != 0 && status.st_uid != geteuid()) return "it does not belong to root";
    if ((status.st_mode & 022) != 0) return "others than root can write it";
    return "";
}

std::string base_name(const std::string &file) {
    return file.substr(file.rfind('/') + 1);
}

class Process {
  public:
    explicit Process(const HookRun &run) : run_(run), seen_(signals::count()) { start(); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process() {
        if (output_ >= 0) close(output_);
    }

    std::string finish() {
        if (pid_ < 0) return trouble_;
        const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(run_.timeout));
        while (!has_ended()) {
            listen(look_around_ms);
            progress::tick();
            if (Clock::now() >= end) return stop("did not end within " + in_seconds());
            if (is_told_to_stop()) return stop("was interrupted");
        }
        // Whatever it has said is there by now. What a process that it left behind may say is not
        // waited for.
        while (listen(0)) {
        }
        end_line();
        return verdict();
    }

  private:
    void start() {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0) {
            trouble_ = std::string("cannot make a pipe: ") + strerror(errno);
            return;
        }
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) become(ends[1], parent);
        if (pid_ < 0) trouble_ = std::string("cannot be started: ") + strerror(errno);
        // Both set it, so that neither can be too early for a kill.
        if (pid_ > 0) setpgid(pid_, pid_);
        close(ends[1]);
        output_ = ends[0];
        fcntl(output_, F_SETFL, O_NONBLOCK);
    }

    [[noreturn]] void become(int output, pid_t parent) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(not_started);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(number, SIG_DFL);
        const int nothing = open("/dev/null", O_RDONLY);
        dup2(nothing, STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        if (nothing > STDERR_FILENO) close(nothing);
        if (chdir("/") != 0) _exit(not_started);
        for (const std::string &variable : run_.environment) {
            const size_t equals = variable.find('=');
            setenv(variable.substr(0, equals).c_str(), variable.c_str() + equals + 1, 1);
        }
        execl(run_.file.c_str(), run_.file.c_str(), run_.argument.c_str(), nullptr);
        dprintf(STDERR_FILENO, "cannot be executed: %s\n", strerror(errno));
        _exit(not_started);
    }

    bool has_ended() {
        const pid_t ended = waitpid(pid_, &status_, WNOHANG);
        return ended == pid_ || (ended < 0 && errno != EINTR);
    }

    // Waits for output and takes it; false when there is none.
    bool listen(int milliseconds) {
        struct pollfd wanted = {output_, POLLIN, 0};
        if (output_ < 0) {
            poll(nullptr, 0, milliseconds);
            return false;
        }
        if (poll(&wanted, 1, milliseconds) <= 0) return false;
        char part[4096];
        const ssize_t size = read(output_, part, sizeof part);
        if (size < 0) return errno == EINTR;
        if (size == 0) {
            close(output_);
            output_ = -1;
            return false;
        }
        for (ssize_t i = 0; i < size; ++i) {
            if (part[i] == '\n' || line_.size() >= longest_line) end_line();
            if (part[i] != '\n') line_ += part[i];
        }
        return true;
    }

    void end_line() {
        if (line_.empty()) return;
        log::detail("hook " + base_name(run_.file) + ": " + line_);
        last_ = std::move(line_);
        line_.clear();
    }

    bool is_told_to_stop() const {
        const int wanted = run_.stop_when_interrupted ? 1 : 2;
        return signals::count() - seen_ >= wanted ||
               (run_.stop_when_interrupted && signals::count() > 0);
    }

    std::string stop(const std::string &why) {
        kill(-pid_, SIGTERM);
        wait_for(Clock::now() + grace);
        // Those that it has started as well, whether it has ended itself or not.
        kill(-pid_, SIGKILL);
        wait_for(Clock::now() + grace);
        end_line();
        return why + with_last();
    }

    void wait_for(Clock::time_point end) {
        while (Clock::now() < end && !has_ended()) listen(look_around_ms / 10);
    }

    std::string verdict() const {
        if (WIFSIGNALED(status_)) {
            return "was ended by signal " + std::to_string(WTERMSIG(status_)) + with_last();
        }
        if (WEXITSTATUS(status_) == 0) return "";
        return "ended with status " + std::to_string(WEXITSTATUS(status_)) + with_last();
    }

    std::string with_last() const { return last_.empty() ? "" : ": " + last_; }

    std::string in_seconds() const {
        char text[40] = "";
        snprintf(text, sizeof text, "%g seconds", run_.timeout);
        return text;
    }

    const HookRun &run_;
    const int seen_;
    pid_t pid_ = -1;
    int output_ = -1;
    int status_ = 0;
    std::string trouble_, line_, last_;
};

}  // namespace

std::string why_refused(const std::string &file) {
    struct stat status = {};
    if (lstat(file.c_str(), &status) != 0) return strerror(errno);
    if (!S_ISREG(status.st_mode)) return "it is no regular file";
    std::string why = why_owned_badly(status);
    if (!why.empty()) return why;
    return (status.st_mode & 0100) == 0 ? "it is not executable" : "";
}

std::string why_folder_refused(const std::string &folder) {
    struct stat status = {};
    if (stat(folder.c_str(), &status) != 0) return strerror(errno);
    if (!S_ISDIR(status.st_mode)) return "it is no folder";
    return why_owned_badly(status);
}

std::string run_hook(const HookRun &run) {
    return Process(run).finish();
}

}  // namespace fimctl
