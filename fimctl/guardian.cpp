#include "fimctl/guardian.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "fimctl/failure.h"
#include "fimctl/frozen_mark.h"

namespace fimctl {
namespace {

using Clock = std::chrono::steady_clock;

// What the guardian says. The first answer tells whether all are frozen, the second how it ended.
struct Report {
    int error = 0;  // 0, or the system's number for the file system at index
    int index = 0;  // -1: the deadline passed before all were frozen
    int late = 0;
    int disturbed = 0;
    double frozen_ms = 0;
};

// The file systems in the guardian's hands. The freezing runs in a thread of its own: it can block
// for as long as somebody writes, and the deadline holds for those that are frozen already.
class Held {
  public:
    explicit Held(const std::vector<std::string> &directories) {
        for (const std::string &directory : directories) {
            files_.push_back(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            errors_.push_back(files_.back() < 0 ? errno : 0);
            frozen_.push_back(false);
        }
    }

    // Flushing first keeps the frozen time short.
    void flush() {
        for (const int file : files_) {
            if (file >= 0) syncfs(file);
        }
    }

    // Freezes one after the other until one fails or the time is over.
    Report freeze_all() {
        Report report;
        for (size_t i = 0; i < files_.size(); ++i) {
            int error = errors_[i];
            if (error == 0 && ioctl(files_[i], FIFREEZE, 0) != 0) error = errno;
            const std::lock_guard guard(lock_);
            report.error = error;
            report.index = static_cast<int>(i);
            if (error != 0) return report;
            frozen_[i] = true;
            if (over_) {
                thaw_one(i);
                report.index = -1;
                return report;
            }
        }
        return report;
    }

    // Thaws what is frozen; what the thread freezes after this it thaws itself.
    void thaw_all() {
        const std::lock_guard guard(lock_);
        over_ = true;
        for (size_t i = 0; i < files_.size(); ++i) thaw_one(i);
    }

    bool disturbed() {
        const std::lock_guard guard(lock_);
        return disturbed_;
    }

  private:
    void thaw_one(size_t i) {
        if (!frozen_[i]) return;
        if (ioctl(files_[i], FITHAW, 0) != 0) disturbed_ = true;
        frozen_[i] = false;
    }

    std::mutex lock_;
    std::vector<int> files_;
    std::vector<int> errors_;
    std::vector<bool> frozen_;
    bool over_ = false;
    bool disturbed_ = false;
};

double milliseconds_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void keep_only(int socket) {
    signal(SIGPIPE, SIG_IGN);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) signal(number, SIG_IGN);
    setsid();
    // Descriptors of the command's other conversations would hide the end of this process's parent.
    if (socket > 3) close_range(3, static_cast<unsigned>(socket) - 1, 0);
    close_range(static_cast<unsigned>(socket) + 1, ~0U, 0);
}

// Waits for a byte from fd, its end, or the deadline. True when the deadline came first.
bool deadline_comes_first(int fd, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return true;
        pollfd waiting = {fd, POLLIN, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(std::min<long>(left + 1, 3600000)));
        if (ready > 0) return false;
        if (ready < 0 && errno != EINTR) return false;
    }
}

void tell(int socket, const Report &report) {
    send(socket, &report, sizeof report, MSG_NOSIGNAL);
}

[[noreturn]] void guard(int socket, const std::vector<std::string> &directories, double deadline,
                        const std::string &mark) {
    keep_only(socket);
    write_frozen_mark(mark, directories);
    Held held(directories);
    held.flush();
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(deadline));
    std::thread freezer([&] { tell(socket, held.freeze_all()); });
    // A word from the parent, or its end, means thaw; so does the deadline.
    Report last;
    if (deadline_comes_first(socket, end)) last.late = 1;
    held.thaw_all();
    last.frozen_ms = milliseconds_since(start);
    freezer.join();
    remove_frozen_mark(mark);
    // The parent's word, or its end. It is read in any case: closing a socket with something unread
    // in it would take the last report away from the parent.
    char word = 0;
    while (recv(socket, &word, 1, 0) < 0 && errno == EINTR) {
    }
    last.disturbed = held.disturbed() ? 1 : 0;
    tell(socket, last);
    _exit(0);
}

bool hear(int socket, Report &report) {
    ssize_t size = 0;
    while ((size = recv(socket, &report, sizeof report, 0)) < 0 && errno == EINTR) {
    }
    return size == static_cast<ssize_t>(sizeof report);
}

Failure quiesce_failure(const Report &report, const std::vector<std::string> &directories) {
    if (report.index < 0) {
        return Failure(Step::quiesce, ExitCode::failed,
                       "the deadline passed before every file system was frozen");
    }
    const std::string &directory = directories[static_cast<size_t>(report.index)];
    std::string text = "cannot freeze the file system on " + directory + ": ";
    text += report.error == EBUSY ? "somebody else has frozen it" : strerror(report.error);
    return Failure(Step::quiesce, report.error == EPERM ? ExitCode::permission : ExitCode::failed,
                   text);
}

}  // namespace

Guardian::Guardian(const std::vector<std::string> &directories, double deadline,
                   const std::string &mark)
    : directories_(directories), mark_(mark) {
    if (directories.empty()) return;
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw Failure(Step::quiesce, ExitCode::failed,
                      std::string("cannot make a socket: ") + strerror(errno));
    }
    pid_ = fork();
    if (pid_ == 0) {
        close(ends[0]);
        guard(ends[1], directories, deadline, mark);
    }
    close(ends[1]);
    socket_ = ends[0];
    Report report;
    if (pid_ < 0 || !hear(socket_, report)) {
        thaw_directly();
        leave();
        throw Failure(Step::quiesce, ExitCode::failed, "the guardian has died");
    }
    if (report.error != 0 || report.index < 0) {
        thaw();
        throw quiesce_failure(report, directories_);
    }
}

// The last resort, when the guardian itself was killed.
void Guardian::thaw_directly() {
    for (const std::string &directory : directories_) thaw_file_system(directory);
    remove_frozen_mark(mark_);
}

Guardian::~Guardian() {
    leave();
}

// Closing the socket is the order to thaw.
void Guardian::leave() {
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
    if (pid_ > 0) {
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    pid_ = -1;
}

Guardian::End Guardian::thaw() {
    End end;
    if (socket_ < 0) return end;
    const char word = 't';
    Report report;
    send(socket_, &word, 1, MSG_NOSIGNAL);
    if (hear(socket_, report)) {
        end.late = report.late != 0;
        end.disturbed = report.disturbed != 0;
        end.frozen_ms = report.frozen_ms;
    } else {
        thaw_directly();
        end.disturbed = true;
    }
    leave();
    return end;
}

}  // namespace fimctl
