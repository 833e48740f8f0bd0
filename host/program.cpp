// One of the host's own programs, run to its end, whatever the calling process did to its signals,
// its environment and its descriptors.
#include "host/program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "host/owners.h"

namespace tessera {
namespace {

constexpr char path_variable[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
constexpr char locale_variable[] = "LC_ALL=C";
constexpr const char *program_folders[] = {"/usr/sbin", "/usr/bin", "/sbin", "/bin"};
constexpr char null_device[] = "/dev/null";
constexpr size_t program_path_size = 64;

// While it lives the end of a child is kept for waitpid. A process that ignores SIGCHLD would lose
// the exit status, and a handler that reaps every child would take it.
class KeptChildren {
  public:
    KeptChildren() {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        sigprocmask(SIG_BLOCK, &child, &mask_);
        sigaction(SIGCHLD, nullptr, &action_);
        ignored_ = action_.sa_handler == SIG_IGN || (action_.sa_flags & SA_NOCLDWAIT) != 0;
        if (!ignored_) return;
        struct sigaction standard = {};
        standard.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &standard, nullptr);
    }
    ~KeptChildren() {
        if (ignored_) sigaction(SIGCHLD, &action_, nullptr);
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
    }
    KeptChildren(const KeptChildren &) = delete;
    KeptChildren &operator=(const KeptChildren &) = delete;

  private:
    sigset_t mask_ = {};
    struct sigaction action_ = {};
    bool ignored_ = false;
};

// How the program starts: signals as they are in a fresh login, and the three streams.
class StartConditions {
  public:
    StartConditions() {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);
    }
    ~StartConditions() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    StartConditions(const StartConditions &) = delete;
    StartConditions &operator=(const StartConditions &) = delete;

    // An ignored signal would stay ignored in the program, and a checker that ignores SIGCHLD
    // loses the result of the one it starts in turn.
    bool reset_signals() {
        sigset_t none, standard;
        sigemptyset(&none);
        sigemptyset(&standard);
        sigaddset(&standard, SIGCHLD);
        sigaddset(&standard, SIGPIPE);
        return posix_spawnattr_setsigmask(&attributes_, &none) == 0 &&
               posix_spawnattr_setsigdefault(&attributes_, &standard) == 0 &&
               posix_spawnattr_setflags(&attributes_,
                                        POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
    }
    // Puts a descriptor, or the null device for -1, in the place of a standard stream.
    bool direct(int stream, int fd) {
        const int mode = stream == STDIN_FILENO ? O_RDONLY : O_WRONLY;
        return fd < 0
                   ? posix_spawn_file_actions_addopen(&actions_, stream, null_device, mode, 0) == 0
                   : posix_spawn_file_actions_adddup2(&actions_, fd, stream) == 0;
    }
    bool close_the_rest() {
        return posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1) == 0;
    }

    const posix_spawnattr_t *attributes() const { return &attributes_; }
    const posix_spawn_file_actions_t *actions() const { return &actions_; }

  private:
    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t actions_;
};

// A copy of a stream's descriptor above the standard ones, so that a caller may give 1 as the error
// and 2 as the output descriptor.
int above_standard_streams(int fd) {
    return fd < 0 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

pid_t start(const char *const *arguments, const StartConditions &conditions) {
    const char *const environment[] = {path_variable, locale_variable, nullptr};
    for (const char *folder : program_folders) {
        char path[program_path_size];
        Q_snprintf(path, sizeof path, "%s/%s", folder, arguments[0]);
        pid_t pid = -1;
        if (posix_spawn(&pid, path, conditions.actions(), conditions.attributes(),
                        const_cast<char *const *>(arguments),
                        const_cast<char *const *>(environment)) == 0) {
            return pid;
        }
    }
    return -1;
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) != pid) {
        if (errno != EINTR) return not_started;
    }
    return WIFSIGNALED(status) ? ended_by_signal + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

int run_program(const char *const *arguments, const Q_sys_cmd_exec_options &options) {
    const Descriptor out(above_standard_streams(options.out_fd));
    const Descriptor err(above_standard_streams(options.err_fd));
    // A given descriptor that is not open: running without the stream would lose the program's
    // reasons, so it does not run at all.
    if ((options.out_fd >= 0 && out.get() < 0) || (options.err_fd >= 0 && err.get() < 0)) {
        return not_started;
    }
    StartConditions conditions;
    if (!conditions.reset_signals() || !conditions.direct(STDIN_FILENO, -1) ||
        !conditions.direct(STDOUT_FILENO, out.get()) ||
        !conditions.direct(STDERR_FILENO, err.get()) || !conditions.close_the_rest()) {
        return not_started;
    }
    const KeptChildren kept;
    const pid_t pid = start(arguments, conditions);
    return pid < 0 ? not_started : wait_for(pid);
}

}  // namespace tessera
