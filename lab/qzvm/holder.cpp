#include "lab/qzvm/holder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

#include "lab/qzvm/state.h"

namespace qz {
namespace {

using lab::common::Descriptor;

// A holder answers its end at once; a slow machine may take a while to write back what it held.
constexpr int patience_ms = 20'000;

std::string file_of(const std::string &group) {
    return std::string(place::holders) + "/" + group;
}

// A holder keeps its file locked as long as it lives, so that its number is known to be its own.
bool is_locked(const std::string &file) {
    const Descriptor opened(open(file.c_str(), O_RDWR | O_CLOEXEC));
    return opened.good() && flock(opened.get(), LOCK_EX | LOCK_NB) != 0;
}

Descriptor locked_file(const std::string &file) {
    unlink(file.c_str());
    Descriptor opened(open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!opened.good() || flock(opened.get(), LOCK_EX) != 0) fails("make " + file);
    return opened;
}

std::string written(pid_t pid, const Hold &hold) {
    std::ostringstream text;
    text << "pid " << pid << '\n';
    for (const auto &[path, fd] : hold.disks) text << "disk " << path << ' ' << fd.get() << '\n';
    for (const auto &[name, loop] : hold.volumes) {
        text << "volume " << name << ' ' << loop.minor << ' ' << loop.sequence << '\n';
    }
    return text.str();
}

Descriptor process(pid_t pid) {
    return Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

void end(const Holding &now) {
    if (!now.alive) return;
    const Descriptor holder = process(now.pid);
    if (!holder.good()) return;  // it has ended meanwhile
    syscall(SYS_pidfd_send_signal, holder.get(), SIGTERM, nullptr, 0);
    pollfd ended = {holder.get(), POLLIN, 0};
    int count = 0;
    do count = poll(&ended, 1, patience_ms);
    while (count < 0 && errno == EINTR);
    if (count == 0) throw Error("process " + std::to_string(now.pid) + " does not end");
    waitpid(now.pid, nullptr, WNOHANG);  // where it is a child of this process
}

// Out of the reach of whatever ends the caller's session, and out of the way of whoever waits for
// the end of the caller's output. Only these descriptors stay open.
void stand_apart(std::vector<int> kept) {
    setsid();
    prctl(PR_SET_NAME, "qzvm-holder");
    if (chdir("/") != 0) _exit(1);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    lab::common::keep_only(std::move(kept));
}

// The life of a holder. Its file takes the old one's place, and then the old one may go; so there
// is one whose file is in place at any time, whoever is killed meanwhile.
[[noreturn]] void be_holder(const std::string &group, const Hold &hold, const Descriptor &file,
                            const std::string &file_name, const Holding &before, int ready) {
    std::vector<int> kept = {file.get(), ready};
    for (const auto &[path, disk] : hold.disks) kept.push_back(disk.get());
    for (const Descriptor &loop : hold.loops) kept.push_back(loop.get());
    stand_apart(kept);
    const std::string text = written(getpid(), hold);
    if (write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        rename(file_name.c_str(), file_of(group).c_str()) != 0) {
        _exit(1);
    }
    try {
        end(before);
    } catch (const Error &) {
        _exit(1);
    }
    // Whoever waits for that may be gone; what is held is held all the same, and written down.
    signal(SIGPIPE, SIG_IGN);
    if (write(ready, "", 1) != 1 && errno != EPIPE) _exit(1);
    close(ready);
    for (;;) pause();
}

}  // namespace

Holding holding_of(const std::string &group) {
    Holding now;
    now.alive = is_locked(file_of(group));
    std::ifstream in(file_of(group));
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string key, name;
        fields >> key >> name;
        if (key == "pid") {
            now.pid = std::stoi(name);
        } else if (key == "disk") {
            fields >> now.disks[name];
        } else if (key == "volume") {
            Attachment loop;
            fields >> loop.minor >> loop.sequence;
            if (is_attached(loop)) now.volumes[name] = loop;
        }
    }
    return now;
}

Descriptor hold_disk(const Holding &now, const std::string &path) {
    const auto held = now.disks.find(path);
    if (now.alive && held != now.disks.end()) {
        const Descriptor holder = process(now.pid);
        Descriptor disk(static_cast<int>(syscall(SYS_pidfd_getfd, holder.get(), held->second, 0)));
        if (!disk.good()) fails("take " + path + " from process " + std::to_string(now.pid));
        return disk;
    }
    Descriptor disk(open(path.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
    if (!disk.good()) fails("take " + path);
    return disk;
}

void replace_holder(const std::string &group, const Hold &hold) {
    const Holding before = holding_of(group);
    const std::string fresh = file_of(group) + ".new";
    const Descriptor file = locked_file(fresh);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fails("make a pipe");
    const Descriptor reader(ends[0]);
    Descriptor writer(ends[1]);
    fflush(nullptr);  // what stands in the buffers would be written by both
    const pid_t pid = fork();
    if (pid < 0) fails("start a process");
    if (pid == 0) be_holder(group, hold, file, fresh, before, writer.get());
    writer.reset();
    char byte = 0;
    if (read(reader.get(), &byte, 1) != 1) {
        waitpid(pid, nullptr, 0);
        throw Error("the process that holds the disks of group " + group + " does not start");
    }
}

void end_holder(const std::string &group) {
    end(holding_of(group));
    unlink(file_of(group).c_str());
}

}  // namespace qz
