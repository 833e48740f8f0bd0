#include "bench/cycle/calls.h"

#include <fcntl.h>
#include <mntent.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/cycle/commands.h"

namespace {

constexpr size_t log_size = size_t{1} << 28;

// One call. Its two texts stand behind it, each with its end; records are aligned to 8 bytes.
struct Call {
    uint32_t size;  // of everything
    bench::Kind kind;
    int64_t numbers[3];
    int64_t result;
    const char *phase;  // at the same place in every process of the benchmark
};

using bench::Kind;

// The head of the shared memory; the calls follow it.
struct Log {
    size_t used;
    char *calls() { return reinterpret_cast<char *>(this + 1); }
};

Log *call_log;
bool recording;
const char *current_phase = "";

void put_down(bench::Kind kind, int64_t result, const char *first = "", const char *second = "",
              int64_t one = 0, int64_t two = 0, int64_t three = 0) {
    if (!recording) return;
    const size_t first_size = strlen(first) + 1, second_size = strlen(second) + 1;
    const size_t size = (sizeof(Call) + first_size + second_size + 7) & ~size_t{7};
    if (call_log->used + size > log_size - sizeof(Log)) abort();
    char *const at = call_log->calls() + call_log->used;
    auto *call = reinterpret_cast<Call *>(at);
    *call = {static_cast<uint32_t>(size), kind, {one, two, three}, result, current_phase};
    memcpy(at + sizeof(Call), first, first_size);
    memcpy(at + sizeof(Call) + first_size, second, second_size);
    call_log->used += size;
}

}  // namespace

// What the linker puts in the place of the calls of the code under test (--wrap).
extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_close(int fd);
ssize_t __real_read(int fd, void *data, size_t size);
ssize_t __real_write(int fd, const void *data, size_t size);
off_t __real_lseek(int fd, off_t offset, int whence);
int __real_ftruncate(int fd, off_t size);
int __real_fcntl(int fd, int command, ...);
int __real_unlink(const char *path);
int __real_stat(const char *path, struct stat *status);
int __real_lstat(const char *path, struct stat *status);
int __real_fstat(int fd, struct stat *status);
int __real_access(const char *path, int mode);
int __real_mkdir(const char *path, mode_t mode);
int __real_chown(const char *path, uid_t user, gid_t group);
FILE *__real_popen(const char *line, const char *mode);
pid_t __real_getpid();
uid_t __real_geteuid();
int __real_getpgid(pid_t pid);
FILE *__real_fdopen(int fd, const char *mode);
char *__real_fgets(char *text, int size, FILE *stream);
int __real_fclose(FILE *stream);
FILE *__real_setmntent(const char *path, const char *mode);
mntent *__real_getmntent(FILE *stream);
int __real_endmntent(FILE *stream);
char *__real_tempnam(const char *folder, const char *prefix);
int __real_pthread_sigmask(int how, const sigset_t *set, sigset_t *old);
int __real_sigpending(sigset_t *set);

int __wrap_open(const char *path, int flags, mode_t mode);
int __wrap_open(const char *path, int flags, mode_t mode) {
    const int fd = __real_open(path, flags, mode);
    put_down(Kind::open, fd, path, "", flags, mode);
    return fd;
}
int __wrap_close(int fd);
int __wrap_close(int fd) {
    put_down(Kind::close, 0, "", "", fd);
    return __real_close(fd);
}
ssize_t __wrap_read(int fd, void *data, size_t size);
ssize_t __wrap_read(int fd, void *data, size_t size) {
    put_down(Kind::read, 0, "", "", fd, static_cast<int64_t>(size));
    return __real_read(fd, data, size);
}
ssize_t __wrap_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size) {
    put_down(Kind::write, 0, "", "", fd, static_cast<int64_t>(size));
    return __real_write(fd, data, size);
}
off_t __wrap_lseek(int fd, off_t offset, int whence);
off_t __wrap_lseek(int fd, off_t offset, int whence) {
    put_down(Kind::lseek, 0, "", "", fd, offset, whence);
    return __real_lseek(fd, offset, whence);
}
int __wrap_ftruncate(int fd, off_t size);
int __wrap_ftruncate(int fd, off_t size) {
    put_down(Kind::ftruncate, 0, "", "", fd, size);
    return __real_ftruncate(fd, size);
}
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void *const argument = va_arg(args, void *);
    va_end(args);
    const bool locks = command == F_SETLK || command == F_SETLKW;
    put_down(locks ? Kind::fcntl_lock : Kind::fcntl, 0, "", "", fd, command,
             locks ? static_cast<struct flock *>(argument)->l_type : 0);
    return __real_fcntl(fd, command, argument);
}
int __wrap_unlink(const char *path);
int __wrap_unlink(const char *path) {
    put_down(Kind::unlink, 0, path);
    return __real_unlink(path);
}
int __wrap_stat(const char *path, struct stat *status);
int __wrap_stat(const char *path, struct stat *status) {
    put_down(Kind::stat, 0, path);
    return __real_stat(path, status);
}
int __wrap_lstat(const char *path, struct stat *status);
int __wrap_lstat(const char *path, struct stat *status) {
    put_down(Kind::lstat, 0, path);
    return __real_lstat(path, status);
}
int __wrap_fstat(int fd, struct stat *status);
int __wrap_fstat(int fd, struct stat *status) {
    put_down(Kind::fstat, 0, "", "", fd);
    return __real_fstat(fd, status);
}
int __wrap_access(const char *path, int mode);
int __wrap_access(const char *path, int mode) {
    put_down(Kind::access, 0, path, "", mode);
    return __real_access(path, mode);
}
int __wrap_mkdir(const char *path, mode_t mode);
int __wrap_mkdir(const char *path, mode_t mode) {
    put_down(Kind::mkdir, 0, path);
    return __real_mkdir(path, mode);
}
int __wrap_chown(const char *path, uid_t user, gid_t group);
int __wrap_chown(const char *path, uid_t user, gid_t group) {
    put_down(Kind::chown, 0, path);
    return __real_chown(path, user, group);
}
int __wrap_system(const char *line);
int __wrap_system(const char *line) {
    put_down(Kind::system, 0, line);
    return bench::run_command(line);
}
FILE *__wrap_popen(const char *line, const char *mode);
FILE *__wrap_popen(const char *line, const char *mode) {
    put_down(Kind::popen, 0, line);
    return __real_popen(line, mode);
}
pid_t __wrap_getpid();
pid_t __wrap_getpid() {
    put_down(Kind::getpid, 0);
    return __real_getpid();
}
uid_t __wrap_geteuid();
uid_t __wrap_geteuid() {
    put_down(Kind::geteuid, 0);
    return __real_geteuid();
}
int __wrap_getpgid(pid_t pid);
int __wrap_getpgid(pid_t pid) {
    put_down(Kind::getpgid, 0, "", "", pid);
    return __real_getpgid(pid);
}
FILE *__wrap_fdopen(int fd, const char *mode);
FILE *__wrap_fdopen(int fd, const char *mode) {
    FILE *const stream = __real_fdopen(fd, mode);
    put_down(Kind::fdopen, reinterpret_cast<int64_t>(stream), mode, "", fd);
    return stream;
}
char *__wrap_fgets(char *text, int size, FILE *stream);
char *__wrap_fgets(char *text, int size, FILE *stream) {
    put_down(Kind::fgets, 0, "", "", reinterpret_cast<int64_t>(stream), size);
    return __real_fgets(text, size, stream);
}
int __wrap_fclose(FILE *stream);
int __wrap_fclose(FILE *stream) {
    put_down(Kind::fclose, 0, "", "", reinterpret_cast<int64_t>(stream));
    return __real_fclose(stream);
}
FILE *__wrap_setmntent(const char *path, const char *mode);
FILE *__wrap_setmntent(const char *path, const char *mode) {
    FILE *const stream = __real_setmntent(path, mode);
    put_down(Kind::setmntent, reinterpret_cast<int64_t>(stream), path, mode);
    return stream;
}
mntent *__wrap_getmntent(FILE *stream);
mntent *__wrap_getmntent(FILE *stream) {
    put_down(Kind::getmntent, 0, "", "", reinterpret_cast<int64_t>(stream));
    return __real_getmntent(stream);
}
int __wrap_endmntent(FILE *stream);
int __wrap_endmntent(FILE *stream) {
    put_down(Kind::endmntent, 0, "", "", reinterpret_cast<int64_t>(stream));
    return __real_endmntent(stream);
}
char *__wrap_tempnam(const char *folder, const char *prefix);
char *__wrap_tempnam(const char *folder, const char *prefix) {
    put_down(Kind::tempnam, 0, prefix);
    return __real_tempnam(folder, prefix);
}
int __wrap_pthread_sigmask(int how, const sigset_t *set, sigset_t *old);
int __wrap_pthread_sigmask(int how, const sigset_t *set, sigset_t *old) {
    put_down(Kind::sigmask, 0);
    return __real_pthread_sigmask(how, set, old);
}
int __wrap_sigpending(sigset_t *set);
int __wrap_sigpending(sigset_t *set) {
    put_down(Kind::sigpending, 0);
    return __real_sigpending(set);
}
// Neither the method nor the floor waits, or flushes the machine's disks.
unsigned __wrap_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds) {
    put_down(Kind::sleep, 0, "", "", seconds);
    return 0;
}
void __wrap_sync();
void __wrap_sync() {
    put_down(Kind::sync, 0);
}
}

namespace bench {
namespace {

// Descriptors and streams of the recorded process, in this one. Both are few at any time.
struct Replay {
    int fd(int64_t recorded) {
        const auto found = fds.find(recorded);
        return found == fds.end() ? static_cast<int>(recorded) : found->second;
    }
    FILE *stream(int64_t recorded) { return streams.at(recorded); }
    std::map<int64_t, int> fds;  // as they were -> as they are
    std::map<int64_t, FILE *> streams;
};

// One function a call, as a reader of a trace would write it down. What a descriptor gives and
// takes has the same size; the bytes are nobody's.
void repeat(const Call &call, const char *first, const char *second, Replay &replay) {
    static char data[65536];
    struct stat status;
    const int64_t(&n)[3] = call.numbers;
    switch (call.kind) {
    case Kind::open: {
        const int fd = __real_open(first, static_cast<int>(n[0]), static_cast<mode_t>(n[1]));
        if (call.result >= 0) replay.fds[call.result] = fd;
        return;
    }
    case Kind::close:
        __real_close(replay.fd(n[0]));
        replay.fds.erase(n[0]);
        return;
    case Kind::read:
        if (__real_read(replay.fd(n[0]), data, static_cast<size_t>(n[1])) < 0) abort();
        return;
    case Kind::write:
        if (__real_write(replay.fd(n[0]), data, static_cast<size_t>(n[1])) < 0) abort();
        return;
    case Kind::lseek:
        __real_lseek(replay.fd(n[0]), n[1], static_cast<int>(n[2]));
        return;
    case Kind::ftruncate:
        if (__real_ftruncate(replay.fd(n[0]), n[1]) != 0) abort();
        return;
    case Kind::fcntl:
        return;
    case Kind::fcntl_lock: {
        struct flock lock = {};
        lock.l_type = static_cast<short>(n[2]);
        lock.l_whence = SEEK_SET;
        __real_fcntl(replay.fd(n[0]), static_cast<int>(n[1]), &lock);
        return;
    }
    case Kind::unlink:
        __real_unlink(first);
        return;
    case Kind::stat:
        __real_stat(first, &status);
        return;
    case Kind::lstat:
        __real_lstat(first, &status);
        return;
    case Kind::fstat:
        __real_fstat(replay.fd(n[0]), &status);
        return;
    case Kind::access:
        __real_access(first, static_cast<int>(n[0]));
        return;
    case Kind::system:
        if (run_command(first) != 0) abort();
        return;
    case Kind::getpid:
        __real_getpid();
        return;
    case Kind::geteuid:
        __real_geteuid();
        return;
    case Kind::getpgid:
        __real_getpgid(static_cast<pid_t>(n[0]));
        return;
    case Kind::tempnam:
        free(__real_tempnam(nullptr, first));
        return;
    case Kind::fdopen:
        replay.streams[call.result] = __real_fdopen(replay.fd(n[0]), first);
        return;
    case Kind::fgets:
        static_cast<void>(__real_fgets(data, static_cast<int>(n[1]), replay.stream(n[0])) == data);
        return;
    case Kind::fclose:
        __real_fclose(replay.stream(n[0]));
        replay.streams.erase(n[0]);
        return;
    case Kind::setmntent:
        replay.streams[call.result] = __real_setmntent(first, second);
        return;
    case Kind::getmntent:
        __real_getmntent(replay.stream(n[0]));
        return;
    case Kind::endmntent:
        __real_endmntent(replay.stream(n[0]));
        replay.streams.erase(n[0]);
        return;
    case Kind::sigmask: {
        sigset_t set;
        sigemptyset(&set);
        __real_pthread_sigmask(SIG_BLOCK, &set, nullptr);
        return;
    }
    case Kind::sigpending: {
        sigset_t set;
        __real_sigpending(&set);
        return;
    }
    case Kind::sleep:
    case Kind::sync:
        return;
    case Kind::mkdir:
    case Kind::chown:
    case Kind::popen:
        abort();  // watched only: a cycle makes none
    default:
        repeat_array_call(call.kind, first, second, n[0]);
    }
}

const char *name_of(Kind kind) {
    static constexpr const char *names[] = {
#define BENCH_NAME(name) #name,
        BENCH_CALLS(BENCH_NAME)
#undef BENCH_NAME
    };
    return names[static_cast<size_t>(kind)];
}

template <class Each>
void for_each_call(Each each) {
    for (size_t at = 0; at < call_log->used;) {
        const char *const text = call_log->calls() + at;
        const auto &call = *reinterpret_cast<const Call *>(text);
        const char *const first = text + sizeof(Call);
        each(call, first, first + strlen(first) + 1);
        at += call.size;
    }
}

}  // namespace

void make_call_log() {
    void *memory = mmap(nullptr, log_size, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) abort();
    call_log = static_cast<Log *>(memory);
}

void empty_call_log() {
    call_log->used = 0;
}

void record_calls(Recording wanted) {
    recording = wanted == Recording::on;
}

void replay_calls() {
    Replay replay;
    for_each_call([&](const Call &call, const char *first, const char *second) {
        repeat(call, first, second, replay);
    });
}

void enter_phase(const char *name) {
    current_phase = name;
}

Calls count_calls() {
    Calls counts;
    for_each_call([&](const Call &call, const char *, const char *) {
        ++counts[{call.phase, name_of(call.kind)}];
    });
    return counts;
}

void record_array_call(Kind kind, const char *first, const char *second, int64_t number) {
    put_down(kind, 0, first, second, number);
}

}  // namespace bench
