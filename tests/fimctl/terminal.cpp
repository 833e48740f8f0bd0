#include "tests/fimctl/terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tests/support/private_root.h"

namespace test {
namespace {

constexpr char terminals[] = "/dev/pts";
constexpr int patience = 15000;  // milliseconds

}  // namespace

Terminal::Terminal(const std::function<int()> &body, unsigned short columns) {
    // The private /dev has no terminals.
    make_folders(terminals);
    if (mount("devpts", terminals, "devpts", 0, "newinstance,ptmxmode=0600") != 0) abort();
    master_ = open((std::string(terminals) + "/ptmx").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0 || unlockpt(master_) != 0) abort();
    const struct winsize size = {24, columns, 0, 0};
    ioctl(master_, TIOCSWINSZ, &size);
    pid_ = fork();
    if (pid_ != 0) return;
    setsid();
    const int slave = ioctl(master_, TIOCGPTPEER, O_RDWR);
    if (slave < 0 || ioctl(slave, TIOCSCTTY, 0) != 0) _exit(99);
    for (int fd = 0; fd <= 2; ++fd) dup2(slave, fd);
    close(slave);
    close(master_);
    const int status = body();
    fflush(nullptr);
    _exit(status);
}

Terminal::~Terminal() {
    if (pid_ > 0) finish();
    close(master_);
    umount(terminals);
}

bool Terminal::read_some(int milliseconds) {
    struct pollfd wanted = {master_, POLLIN, 0};
    if (poll(&wanted, 1, milliseconds) <= 0) return false;
    char part[4096];
    const ssize_t size = read(master_, part, sizeof part);
    for (ssize_t i = 0; i < size; ++i) {
        if (part[i] == '\n' && !output_.empty() && output_.back() == '\r') output_.pop_back();
        output_ += part[i];
    }
    return size > 0;
}

bool Terminal::wait_for(const std::string &text) {
    while (output_.find(text) == std::string::npos) {
        if (!read_some(patience)) return false;
    }
    return true;
}

void Terminal::type(const std::string &keys) {
    if (write(master_, keys.data(), keys.size()) < 0) abort();
}

int Terminal::finish() {
    while (read_some(patience)) {
    }
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Terminal::screen() const {
    std::string seen;
    std::string line;
    for (size_t i = 0; i < output_.size(); ++i) {
        if (output_.compare(i, 4, "\r\033[K") == 0) {
            line.clear();
            i += 3;
        } else if (output_[i] == '\n') {
            seen += line + "\n";
            line.clear();
        } else {
            line += output_[i];
        }
    }
    return seen + line;
}

}  // namespace test
