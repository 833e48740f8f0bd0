// The calls that the shipped libraries make of the system, which fail or fall short on demand.
//
// Kind "system". A call counts when the method or its host library makes it itself. "fail" and
// "fail_after" answer as the function says of a failure; VALUE is errno, or what functions return
// that answer with an error number themselves. "lie" is a short one: VALUE is the number of bytes.
// open() and fcntl() count under the names of what they are used for: "open" or "create", "lock" or
// "duplicate".
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <mntent.h>
#include <netdb.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "proof/agent/allocations.h"
#include "proof/agent/sites.h"

namespace {

using agent::Fate;
using agent::Order;

#define CALLER __builtin_return_address(0)
#define EXPORTED __attribute__((visibility("default")))

// What is to happen to a call. errno is the caller's business and stays.
Order order_of(const char *function, const void *caller) {
    if (!agent::watches("system") || !agent::in_shipped(caller)) return {};
    const int error = errno;
    const Order order = agent::at("system", function);
    errno = error;
    return order;
}

int error_of(const Order &order) {
    return static_cast<int>(order.value);
}

// Makes the call as it is ordered. A failure is told with errno and this answer.
template <class Answer, class Call>
Answer make(const Order &order, Answer failed, Call call) {
    if (order.fate == Fate::fail) {
        errno = error_of(order);
        return failed;
    }
    const Answer answer = call();
    if (order.fate == Fate::kill_after) agent::end();
    if (order.fate != Fate::fail_after) return answer;
    errno = error_of(order);
    return failed;
}

// The same of functions that answer with an error number and leave errno alone.
template <class Call>
int make_numbered(const Order &order, Call call) {
    if (order.fate == Fate::fail) return error_of(order);
    const int answer = call();
    if (order.fate == Fate::kill_after) agent::end();
    return order.fate == Fate::fail_after ? error_of(order) : answer;
}

// The same of functions that read a stream, which remembers that it failed.
template <class Answer, class Call>
Answer make_reading(const Order &order, FILE *stream, Answer failed, Call call) {
    if (order.fate == Fate::fail) stream->_flags |= 0x20;  // what ferror() looks at
    return make(order, failed, call);
}

size_t length_of(const Order &order, size_t size) {
    return order.fate == Fate::lie ? std::min(size, static_cast<size_t>(order.value)) : size;
}

// The function behind the agent's own, looked up once.
#define REAL(name) static auto *const real = agent::next_of<decltype(::name)>(#name)

// The method, from its loading to its unloading.
void *method_handle;

// A program that ends without having unloaded the method unloads it here, so that what it still
// holds can be seen.
void unload_method() {
    if (method_handle != nullptr) dlclose(method_handle);
}

}  // namespace

// Functions whose declarations a program without the fortified headers does not have.
extern "C" {
char *__fgets_chk(char *line, size_t room, int size, FILE *stream);
char *__realpath_chk(const char *path, char *resolved, size_t room);
}

extern "C" {

// Descriptors.

EXPORTED int open(const char *path, int flags, ...) {
    REAL(open);
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const Order order = order_of((flags & O_CREAT) != 0 ? "create" : "open", CALLER);
    return make(order, -1, [&] { return real(path, flags, mode); });
}

// The descriptor is gone whatever close answers, so it never fails before.
EXPORTED int close(int fd) {
    REAL(close);
    const Order order = order_of("close", CALLER);
    return make(order, -1, [&] { return real(fd); });
}

EXPORTED ssize_t read(int fd, void *buffer, size_t size) {
    REAL(read);
    const Order order = order_of("read", CALLER);
    return make<ssize_t>(order, -1, [&] { return real(fd, buffer, length_of(order, size)); });
}

EXPORTED ssize_t write(int fd, const void *buffer, size_t size) {
    REAL(write);
    const Order order = order_of("write", CALLER);
    return make<ssize_t>(order, -1, [&] { return real(fd, buffer, length_of(order, size)); });
}

EXPORTED off_t lseek(int fd, off_t offset, int whence) noexcept {
    REAL(lseek);
    const Order order = order_of("lseek", CALLER);
    return make<off_t>(order, -1, [&] { return real(fd, offset, whence); });
}

EXPORTED int ftruncate(int fd, off_t length) noexcept {
    REAL(ftruncate);
    const Order order = order_of("ftruncate", CALLER);
    return make(order, -1, [&] { return real(fd, length); });
}

EXPORTED int fcntl(int fd, int command, ...) {
    REAL(fcntl);
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    const char *name = "fcntl";
    if (command == F_SETLKW) name = "lock";
    if (command == F_DUPFD_CLOEXEC) name = "duplicate";
    const Order order = order_of(name, CALLER);
    return make(order, -1, [&] { return real(fd, command, argument); });
}

EXPORTED int ioctl(int fd, unsigned long request, ...) noexcept {
    REAL(ioctl);
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    const Order order = order_of("ioctl", CALLER);
    return make(order, -1, [&] { return real(fd, request, argument); });
}

// Paths.

EXPORTED int unlink(const char *path) noexcept {
    REAL(unlink);
    const Order order = order_of("unlink", CALLER);
    return make(order, -1, [&] { return real(path); });
}

EXPORTED int mkdir(const char *path, mode_t mode) noexcept {
    REAL(mkdir);
    const Order order = order_of("mkdir", CALLER);
    return make(order, -1, [&] { return real(path, mode); });
}

EXPORTED int chown(const char *path, uid_t owner, gid_t group) noexcept {
    REAL(chown);
    const Order order = order_of("chown", CALLER);
    return make(order, -1, [&] { return real(path, owner, group); });
}

EXPORTED int access(const char *path, int mode) noexcept {
    REAL(access);
    const Order order = order_of("access", CALLER);
    return make(order, -1, [&] { return real(path, mode); });
}

EXPORTED int stat(const char *path, struct stat *status) noexcept {
    static auto *const real = agent::next_of<int(const char *, struct stat *)>("stat");
    const Order order = order_of("stat", CALLER);
    return make(order, -1, [&] { return real(path, status); });
}

EXPORTED int lstat(const char *path, struct stat *status) noexcept {
    static auto *const real = agent::next_of<int(const char *, struct stat *)>("lstat");
    const Order order = order_of("lstat", CALLER);
    return make(order, -1, [&] { return real(path, status); });
}

EXPORTED int fstat(int fd, struct stat *status) noexcept {
    static auto *const real = agent::next_of<int(int, struct stat *)>("fstat");
    const Order order = order_of("fstat", CALLER);
    return make(order, -1, [&] { return real(fd, status); });
}

EXPORTED char *realpath(const char *path, char *resolved) noexcept {
    REAL(realpath);
    const Order order = order_of("realpath", CALLER);
    char *const answer = make<char *>(order, nullptr, [&] { return real(path, resolved); });
    return resolved == nullptr ? static_cast<char *>(agent::held(answer, CALLER)) : answer;
}

EXPORTED char *__realpath_chk(const char *path, char *resolved, size_t room) {
    REAL(__realpath_chk);
    const Order order = order_of("realpath", CALLER);
    return make<char *>(order, nullptr, [&] { return real(path, resolved, room); });
}

EXPORTED char *tempnam(const char *folder, const char *prefix) noexcept {
    static auto *const real = agent::next_of<char *(const char *, const char *)>("tempnam");
    const Order order = order_of("tempnam", CALLER);
    char *const name = make<char *>(order, nullptr, [&] { return real(folder, prefix); });
    return static_cast<char *>(agent::held(name, CALLER));
}

EXPORTED char *strdup(const char *text) noexcept {
    REAL(strdup);
    return static_cast<char *>(agent::held(real(text), CALLER));
}

// Streams. One that is closed is gone whatever the answer is.

EXPORTED FILE *fopen(const char *path, const char *mode) {
    REAL(fopen);
    const Order order = order_of("fopen", CALLER);
    return make<FILE *>(order, nullptr, [&] { return real(path, mode); });
}

EXPORTED FILE *fdopen(int fd, const char *mode) noexcept {
    REAL(fdopen);
    const Order order = order_of("fdopen", CALLER);
    return make<FILE *>(order, nullptr, [&] { return real(fd, mode); });
}

EXPORTED int fclose(FILE *stream) {
    REAL(fclose);
    const Order order = order_of("fclose", CALLER);
    return make(order, EOF, [&] { return real(stream); });
}

EXPORTED char *fgets(char *line, int size, FILE *stream) {
    REAL(fgets);
    const Order order = order_of("fgets", CALLER);
    return make_reading<char *>(order, stream, nullptr, [&] { return real(line, size, stream); });
}

EXPORTED char *__fgets_chk(char *line, size_t room, int size, FILE *stream) {
    REAL(__fgets_chk);
    const Order order = order_of("fgets", CALLER);
    return make_reading<char *>(order, stream, nullptr,
                                [&] { return real(line, room, size, stream); });
}

EXPORTED int getc(FILE *stream) {
    REAL(getc);
    const Order order = order_of("getc", CALLER);
    return make_reading(order, stream, EOF, [&] { return real(stream); });
}

EXPORTED ssize_t __getdelim(char **line, size_t *size, int delimiter, FILE *stream) {
    REAL(__getdelim);
    const Order order = order_of("getline", CALLER);
    char *const before = *line;
    const ssize_t length = make_reading<ssize_t>(
        order, stream, -1, [&] { return real(line, size, delimiter, stream); });
    if (before == nullptr) agent::held(*line, CALLER);
    return length;
}

EXPORTED FILE *setmntent(const char *path, const char *mode) noexcept {
    REAL(setmntent);
    const Order order = order_of("setmntent", CALLER);
    return make<FILE *>(order, nullptr, [&] { return real(path, mode); });
}

EXPORTED mntent *getmntent(FILE *stream) noexcept {
    static auto *const real = agent::next_of<mntent *(FILE *)>("getmntent");
    const Order order = order_of("getmntent", CALLER);
    return make_reading<mntent *>(order, stream, nullptr, [&] { return real(stream); });
}

// Processes.

EXPORTED int system(const char *line) {
    REAL(system);
    const Order order = order_of("system", CALLER);
    return make(order, -1, [&] { return real(line); });
}

EXPORTED FILE *popen(const char *line, const char *mode) {
    REAL(popen);
    const Order order = order_of("popen", CALLER);
    return make<FILE *>(order, nullptr, [&] { return real(line, mode); });
}

EXPORTED int pclose(FILE *stream) {
    REAL(pclose);
    const Order order = order_of("pclose", CALLER);
    return make(order, -1, [&] { return real(stream); });
}

EXPORTED int posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                         const posix_spawnattr_t *attributes, char *const arguments[],
                         char *const environment[]) {
    REAL(posix_spawn);
    const Order order = order_of("posix_spawn", CALLER);
    return make_numbered(
        order, [&] { return real(pid, path, actions, attributes, arguments, environment); });
}

EXPORTED int posix_spawn_file_actions_addopen(posix_spawn_file_actions_t *actions, int fd,
                                              const char *path, int flags, mode_t mode) noexcept {
    REAL(posix_spawn_file_actions_addopen);
    const Order order = order_of("posix_spawn_file_actions_addopen", CALLER);
    return make_numbered(order, [&] { return real(actions, fd, path, flags, mode); });
}

EXPORTED int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t *actions, int from,
                                              int to) noexcept {
    REAL(posix_spawn_file_actions_adddup2);
    const Order order = order_of("posix_spawn_file_actions_adddup2", CALLER);
    return make_numbered(order, [&] { return real(actions, from, to); });
}

EXPORTED int posix_spawn_file_actions_addclosefrom_np(posix_spawn_file_actions_t *actions,
                                                      int from) noexcept {
    REAL(posix_spawn_file_actions_addclosefrom_np);
    const Order order = order_of("posix_spawn_file_actions_addclosefrom_np", CALLER);
    return make_numbered(order, [&] { return real(actions, from); });
}

EXPORTED pid_t waitpid(pid_t pid, int *status, int options) {
    REAL(waitpid);
    const Order order = order_of("waitpid", CALLER);
    return make<pid_t>(order, -1, [&] { return real(pid, status, options); });
}

EXPORTED pid_t getpgid(pid_t pid) noexcept {
    REAL(getpgid);
    const Order order = order_of("getpgid", CALLER);
    return make<pid_t>(order, -1, [&] { return real(pid); });
}

// The host and its libraries.

EXPORTED int gethostname(char *name, size_t size) noexcept {
    REAL(gethostname);
    const Order order = order_of("gethostname", CALLER);
    return make(order, -1, [&] { return real(name, size); });
}

EXPORTED int getaddrinfo(const char *name, const char *service, const addrinfo *hints,
                         addrinfo **found) {
    REAL(getaddrinfo);
    const Order order = order_of("getaddrinfo", CALLER);
    return make_numbered(order, [&] { return real(name, service, hints, found); });
}

EXPORTED int getifaddrs(ifaddrs **found) noexcept {
    REAL(getifaddrs);
    const Order order = order_of("getifaddrs", CALLER);
    return make(order, -1, [&] { return real(found); });
}

// A library that cannot be had: one that is not there, so that dlerror has something to say.
EXPORTED void *dlopen(const char *path, int mode) noexcept {
    REAL(dlopen);
    const Order order = order_of("dlopen", CALLER);
    if (order.fate == Fate::fail) path = "/no/such/library.so";
    void *const library = real(path, mode);
    if (order.fate == Fate::kill_after) agent::end();
    if (library != nullptr && agent::is_method(path)) {
        method_handle = library;
        atexit(unload_method);
    }
    return library;
}

EXPORTED int dlclose(void *library) noexcept {
    REAL(dlclose);
    const Order order = order_of("dlclose", CALLER);
    const int answer = make(order, -1, [&] { return real(library); });
    if (library != method_handle) return answer;
    method_handle = nullptr;
    agent::tell_held();
    return answer;
}

}  // extern "C"
