#include "tests/lab_method/phase/host_state.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace phase {
namespace {

using Facts = std::vector<std::string>;

std::string number(uint64_t value) {
    return std::to_string(value);
}

std::string hex(const void *bytes, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<const unsigned char *>(bytes)[i];
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

std::string set_of(const sigset_t &set) {
    std::string text;
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(&set, signal) == 1) text += " " + number(static_cast<unsigned>(signal));
    }
    return text;
}

// The C library sets this bit whenever it sets an action, also the one that was there before.
constexpr unsigned restorer = 0x04000000;

void add_signals(Facts *facts) {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action = {};
        if (sigaction(signal, nullptr, &action) != 0) continue;
        const auto handler = reinterpret_cast<uintptr_t>(action.sa_handler);
        facts->push_back("action of signal " + number(static_cast<unsigned>(signal)) + ": " +
                         hex(&handler, sizeof handler) + " flags " +
                         number(static_cast<unsigned>(action.sa_flags) & ~restorer) + " mask" +
                         set_of(action.sa_mask));
    }
    sigset_t set;
    pthread_sigmask(SIG_SETMASK, nullptr, &set);
    facts->push_back("held signals:" + set_of(set));
    sigpending(&set);
    // A child that ended tells so. While the process holds that back it stays, whoever waited for
    // the child.
    sigdelset(&set, SIGCHLD);
    facts->push_back("pending signals:" + set_of(set));
}

std::string link_text(const std::string &path) {
    char text[4096];
    const ssize_t length = readlink(path.c_str(), text, sizeof text);
    return length < 0 ? "?" : std::string(text, static_cast<size_t>(length));
}

void add_surroundings(Facts *facts) {
    const mode_t mask = umask(0);
    umask(mask);
    facts->push_back("umask: " + number(mask));
    struct stat here = {};
    stat(".", &here);
    facts->push_back("directory: " + link_text("/proc/self/cwd") + " " + number(here.st_dev) + ":" +
                     number(here.st_ino));
    const char *const locale = setlocale(LC_ALL, nullptr);
    facts->push_back(std::string("locale: ") + (locale != nullptr ? locale : "none"));
    const locale_t own = uselocale(static_cast<locale_t>(nullptr));
    facts->push_back("locale of the thread: " + hex(&own, sizeof own));
    for (char **variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        facts->push_back(std::string("environment: ") + *variable);
    }
}

// Whether the descriptor is a connection to the array: nothing else in this process opens a socket
// with a path.
bool is_connection(int fd) {
    sockaddr_un peer = {};
    socklen_t size = sizeof peer;
    return getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0 &&
           peer.sun_family == AF_UNIX && strstr(peer.sun_path, "tfarray") != nullptr;
}

void add_descriptors(Facts *facts, Facts *connections) {
    DIR *const folder = opendir("/proc/self/fd");
    if (folder == nullptr) {
        facts->push_back("descriptors: cannot be listed");
        return;
    }
    while (const dirent *entry = readdir(folder)) {
        if (entry->d_name[0] == '.') continue;
        const int fd = atoi(entry->d_name);
        if (fd == dirfd(folder)) continue;
        const int flags = fcntl(fd, F_GETFD), mode = fcntl(fd, F_GETFL);
        const std::string text = "descriptor " + std::string(entry->d_name) + ": " +
                                 link_text(std::string("/proc/self/fd/") + entry->d_name) +
                                 " flags " + hex(&flags, sizeof flags) + hex(&mode, sizeof mode);
        (is_connection(fd) ? connections : facts)->push_back(text);
    }
    closedir(folder);
}

// Children that run, and those that have ended and were not waited for.
void add_children(Facts *facts) {
    const std::string self = number(static_cast<unsigned>(getpid()));
    std::ifstream in("/proc/self/task/" + self + "/children");
    for (std::string child; in >> child;) facts->push_back("child: " + child);
}

bool contains(const Facts &facts, const std::string &fact) {
    return std::find(facts.begin(), facts.end(), fact) != facts.end();
}

void compare(const Facts &before, const Facts &now, Facts *changes) {
    for (const std::string &fact : before) {
        if (!contains(now, fact)) changes->push_back("was " + fact);
    }
    for (const std::string &fact : now) {
        if (!contains(before, fact)) changes->push_back("is " + fact);
    }
}

}  // namespace

HostState::HostState() {
    add_signals(&facts_);
    add_surroundings(&facts_);
    add_descriptors(&facts_, &connections_);
    add_children(&facts_);
}

std::vector<std::string> HostState::changes(const HostState &now, size_t connections) const {
    Facts changes, new_ones;
    compare(facts_, now.facts_, &changes);
    compare(connections_, now.connections_, &new_ones);
    if (new_ones.size() > connections) {
        changes.insert(changes.end(), new_ones.begin(), new_ones.end());
    }
    return changes;
}

}  // namespace phase
