#include "fimctl/worker.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>

#include "fimctl/failure.h"
#include "fimctl/log.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

void make_scratch(const std::string &scratch) {
    if (scratch.empty()) return;
    std::error_code error;
    std::filesystem::remove_all(scratch, error);
    std::filesystem::create_directories(scratch, error);
    if (error) {
        throw Failure(Step::catalogue, ExitCode::failed,
                      "cannot make the folder " + scratch + ": " + error.message());
    }
}

[[noreturn]] void live_as_child(const Worker::Body &body, int fd, const std::string &scratch,
                                pid_t parent) {
    // Whoever kills the command ends its phase as well; a phase that went on alone would work on a
    // snapshot that nobody records any more.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    // Out of the terminal's reach: an interruption must not hit the fsck or umount that the method
    // has running. The command hands it on.
    setpgid(0, 0);
    // A terminal that stops background writers ("stty tostop") must not stop a phase in mid-cut.
    signal(SIGTTOU, SIG_IGN);
    if (!scratch.empty()) setenv("TMPDIR", scratch.c_str(), 1);
    log::forget();
    int status = 0;
    try {
        Channel channel(fd);
        log::hand_over([&channel](const std::string &kind, const std::string &text) {
            channel.send({{"show", kind}, {"text", text}});
        });
        body(channel);
    } catch (const std::exception &error) {
        log::problem(std::string("internal error: ") + error.what());
        status = 1;
    }
    _exit(status);
}

void make_pair(int (&ends)[2]) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw Failure(Step::load, ExitCode::failed,
                      std::string("cannot make a socket: ") + strerror(errno));
    }
}

}  // namespace

Worker::Worker(const Body &body, const std::string &scratch)
    : seen_(signals::count()), scratch_(scratch), channel_(-1) {
    make_scratch(scratch);
    int ends[2] = {-1, -1};
    make_pair(ends);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        close(ends[0]);
        live_as_child(body, ends[1], scratch, parent);
    }
    const int reason = errno;
    close(ends[1]);
    channel_.take(ends[0]);
    if (pid_ < 0) {
        throw Failure(Step::load, ExitCode::failed,
                      std::string("cannot start a process: ") + strerror(reason));
    }
}

Worker::~Worker() {
    reap();
}

void Worker::hand_on() {
    const int now = signals::count();
    if (now == seen_ || pid_ <= 0) return;
    kill(pid_, told_ ? SIGKILL : SIGINT);
    // A step may take minutes to its next clean point, and who hears nothing signals again.
    if (!told_) {
        log::problem(
            "interrupted: ends where it can end cleanly, a release with its end; another "
            "signal kills this step");
    }
    told_ = true;
    seen_ = now;
}

std::optional<Message> Worker::receive() {
    hand_on();
    for (;;) {
        auto message = channel_.receive([this] {
            hand_on();
            progress::tick();
        });
        if (!message || !message->contains("show")) return message;
        log::show(message->at("show"), message->at("text"));
    }
}

std::string Worker::reap() {
    channel_.close();
    if (pid_ <= 0) return "";
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) hand_on();
    pid_ = -1;
    std::error_code error;
    if (!scratch_.empty()) std::filesystem::remove_all(scratch_, error);
    if (WIFSIGNALED(status)) {
        return std::string("killed by signal ") + std::to_string(WTERMSIG(status)) + " (" +
               strsignal(WTERMSIG(status)) + ")";
    }
    return WEXITSTATUS(status) == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace fimctl
