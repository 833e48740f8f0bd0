#include "tests/host/replaced_calls.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>

extern "C" {
FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode);
int __real_stat(const char *path, struct stat *status);
int __wrap_stat(const char *path, struct stat *status);
char *__real_strerror_r(int error, char *buffer, size_t size);
char *__wrap_strerror_r(int error, char *buffer, size_t size);
int __real_gethostname(char *name, size_t size);
int __wrap_gethostname(char *name, size_t size);
int __real_getaddrinfo(const char *name, const char *service, const addrinfo *hints,
                       addrinfo **result);
int __wrap_getaddrinfo(const char *name, const char *service, const addrinfo *hints,
                       addrinfo **result);
void __real_freeaddrinfo(addrinfo *first);
void __wrap_freeaddrinfo(addrinfo *first);
int __real_getifaddrs(ifaddrs **first);
int __wrap_getifaddrs(ifaddrs **first);
void __real_freeifaddrs(ifaddrs *first);
void __wrap_freeifaddrs(ifaddrs *first);
pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options);
int __real_posix_spawnattr_setsigmask(posix_spawnattr_t *attributes, const sigset_t *mask);
int __wrap_posix_spawnattr_setsigmask(posix_spawnattr_t *attributes, const sigset_t *mask);
int __real_posix_spawnattr_setsigdefault(posix_spawnattr_t *attributes, const sigset_t *set);
int __wrap_posix_spawnattr_setsigdefault(posix_spawnattr_t *attributes, const sigset_t *set);
int __real_posix_spawnattr_setflags(posix_spawnattr_t *attributes, short flags);
int __wrap_posix_spawnattr_setflags(posix_spawnattr_t *attributes, short flags);
int __real_posix_spawn_file_actions_addopen(posix_spawn_file_actions_t *actions, int fd,
                                            const char *path, int flags, mode_t mode);
int __wrap_posix_spawn_file_actions_addopen(posix_spawn_file_actions_t *actions, int fd,
                                            const char *path, int flags, mode_t mode);
int __real_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t *actions, int fd, int to);
int __wrap_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t *actions, int fd, int to);
int __real_posix_spawn_file_actions_addclosefrom_np(posix_spawn_file_actions_t *actions, int from);
int __wrap_posix_spawn_file_actions_addclosefrom_np(posix_spawn_file_actions_t *actions, int from);
}

namespace {

using test::replaced;

bool fails(const char *call) {
    return replaced().failing == call && --replaced().failing_call == 0;
}

// The interfaces that were made up, and what their addresses are in.
struct MadeUp {
    ifaddrs entry = {};
    sockaddr_in address = {};
};
std::list<MadeUp> made_up;

ifaddrs *make_interfaces(const std::vector<std::string> &addresses) {
    made_up.clear();
    for (const std::string &address : addresses) {
        MadeUp &added = made_up.emplace_front();
        if (made_up.size() > 1) added.entry.ifa_next = &std::next(made_up.begin())->entry;
        if (address.empty()) continue;
        added.address.sin_family = AF_INET;
        inet_pton(AF_INET, address.c_str(), &added.address.sin_addr);
        added.entry.ifa_addr = reinterpret_cast<sockaddr *>(&added.address);
    }
    return made_up.empty() ? nullptr : &made_up.front().entry;
}

}  // namespace

namespace test {

ReplacedCalls &replaced() {
    static ReplacedCalls calls;
    return calls;
}

}  // namespace test

FILE *__wrap_fopen(const char *path, const char *mode) {
    if (fails("fopen")) {
        errno = EMFILE;
        return nullptr;
    }
    std::optional<std::string> &table = replaced().mount_table;
    if (!table || strcmp(path, "/proc/self/mountinfo") != 0) return __real_fopen(path, mode);
    return fmemopen(table->data(), table->size(), "r");
}
int __wrap_stat(const char *path, struct stat *status) {
    if (!fails("stat")) return __real_stat(path, status);
    errno = ENOENT;
    return -1;
}
char *__wrap_strerror_r(int error, char *buffer, size_t size) {
    std::optional<std::string> &text = replaced().error_text;
    return text ? text->data() : __real_strerror_r(error, buffer, size);
}
int __wrap_gethostname(char *name, size_t size) {
    if (replaced().host_name) return replaced().host_name(name, size);
    if (!fails("gethostname")) return __real_gethostname(name, size);
    errno = EFAULT;
    return -1;
}
int __wrap_getaddrinfo(const char *name, const char *service, const addrinfo *hints,
                       addrinfo **result) {
    if (replaced().resolver) return replaced().resolver(name, result);
    const int status = __real_getaddrinfo(name, service, hints, result);
    if (status != 0 || !replaced().strange_addresses) return status;
    for (addrinfo *a = *result; a != nullptr; a = a->ai_next) a->ai_addr->sa_family = AF_UNIX;
    return status;
}
// What a case answers is its own.
void __wrap_freeaddrinfo(addrinfo *first) {
    if (!replaced().resolver) __real_freeaddrinfo(first);
}
int __wrap_getifaddrs(ifaddrs **first) {
    if (replaced().interface_list) return replaced().interface_list(first);
    if (fails("getifaddrs")) {
        // What the caller hands in is not looked at after a failure, whatever it holds.
        *first = reinterpret_cast<ifaddrs *>(8);
        errno = ENOBUFS;
        return -1;
    }
    if (!replaced().interfaces) return __real_getifaddrs(first);
    *first = make_interfaces(*replaced().interfaces);
    return 0;
}
void __wrap_freeifaddrs(ifaddrs *first) {
    if (!replaced().interfaces && !replaced().interface_list) __real_freeifaddrs(first);
}
pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    if (replaced().before_waiting) replaced().before_waiting();
    if (!fails("waitpid")) return __real_waitpid(pid, status, options);
    errno = ECHILD;
    return -1;
}
int __wrap_posix_spawnattr_setsigmask(posix_spawnattr_t *attributes, const sigset_t *mask) {
    return fails(__func__ + 7) ? EINVAL : __real_posix_spawnattr_setsigmask(attributes, mask);
}
int __wrap_posix_spawnattr_setsigdefault(posix_spawnattr_t *attributes, const sigset_t *set) {
    return fails(__func__ + 7) ? EINVAL : __real_posix_spawnattr_setsigdefault(attributes, set);
}
int __wrap_posix_spawnattr_setflags(posix_spawnattr_t *attributes, short flags) {
    return fails(__func__ + 7) ? EINVAL : __real_posix_spawnattr_setflags(attributes, flags);
}
int __wrap_posix_spawn_file_actions_addopen(posix_spawn_file_actions_t *actions, int fd,
                                            const char *path, int flags, mode_t mode) {
    return fails(__func__ + 7)
               ? ENOMEM
               : __real_posix_spawn_file_actions_addopen(actions, fd, path, flags, mode);
}
int __wrap_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t *actions, int fd, int to) {
    return fails(__func__ + 7) ? ENOMEM : __real_posix_spawn_file_actions_adddup2(actions, fd, to);
}
int __wrap_posix_spawn_file_actions_addclosefrom_np(posix_spawn_file_actions_t *actions, int from) {
    return fails(__func__ + 7) ? ENOMEM
                               : __real_posix_spawn_file_actions_addclosefrom_np(actions, from);
}
