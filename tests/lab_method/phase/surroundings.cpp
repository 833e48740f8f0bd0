#include "tests/lab_method/phase/surroundings.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace phase {
namespace {

constexpr int high_descriptors = 100;
constexpr int some_descriptors = 64;
constexpr int many_descriptors = 1000;
constexpr size_t small_stack = 65536;
constexpr char file_size[] = "file_size_", few_descriptors[] = "descriptors_";

[[noreturn]] void give_up(const char *what) {
    fprintf(stderr, "surroundings: %s: %s\n", what, strerror(errno));
    exit(2);
}

void reap_everything(int) {
    const int error = errno;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = error;
}

void handle_children(void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(SIGCHLD, &action, nullptr);
}

// A working directory that nobody finds any more.
void enter_deleted_directory() {
    char name[] = "/exchange/gone.XXXXXX";
    if (mkdtemp(name) == nullptr || chdir(name) != 0 || rmdir(name) != 0) give_up(name);
}

// From here on the process can have no children. Root passes the limit that others have, so the
// kernel is asked to answer as if it were reached.
void forbid_processes() {
#define TF_REFUSE(call)                              \
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1), \
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN)
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        TF_REFUSE(__NR_clone),
        TF_REFUSE(__NR_clone3),
        TF_REFUSE(__NR_fork),
        TF_REFUSE(__NR_vfork),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
#undef TF_REFUSE
    const sock_fprog filter = {sizeof program / sizeof program[0], program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        give_up("no filter");
    }
}

// The limit that leaves this many numbers free.
rlim_t limit_with_free_descriptors(int wanted) {
    int fd = 0;
    for (; wanted > 0; ++fd) {
        if (fcntl(fd, F_GETFD) == -1) --wanted;
    }
    return static_cast<rlim_t>(fd);
}

const std::function<void()> *on_small_stack;

void run_on_small_stack() {
    (*on_small_stack)();
}

// Below the stack nothing is mapped, so one byte too many ends the process.
void with_small_stack(const std::function<void()> &action) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *const memory = mmap(nullptr, small_stack + page, PROT_NONE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    char *const stack = static_cast<char *>(memory) + page;
    if (memory == MAP_FAILED || mprotect(stack, small_stack, PROT_READ | PROT_WRITE) != 0) {
        give_up("no stack");
    }
    ucontext_t back = {}, context = {};
    getcontext(&context);
    context.uc_stack.ss_sp = stack;
    context.uc_stack.ss_size = small_stack;
    context.uc_link = &back;
    on_small_stack = &action;
    makecontext(&context, run_on_small_stack, 0);
    swapcontext(&back, &context);
    if (getenv("TFPHASE_STACK") != nullptr) {
        const char *const end = stack + small_stack;
        const char *const used =
            std::find_if(stack, const_cast<char *>(end), [](char byte) { return byte != 0; });
        fprintf(stderr, "stack %td\n", end - used);
    }
    munmap(memory, small_stack + page);
}

}  // namespace

const std::vector<std::string> &surroundings_names() {
    static const std::vector<std::string> names = {
        "children_ignored", "children_unwaited", "children_reaped", "pipes_end",
        "signals_held",     "no_input",          "no_output",       "no_errors",
        "no_streams",       "umask_0",           "umask_777",       "deleted_directory",
        "no_environment",   "odd_locale",        "other_locale",    "open_descriptors",
        "small_stack",      "no_processes",      "file_size_0",     "file_size_8",
        "file_size_100",    "descriptors_0",     "descriptors_1",   "descriptors_2",
        "descriptors_3",    "descriptors_4",     "descriptors_6"};
    return names;
}

Surroundings::Surroundings() {
    const char *const given = getenv("TFPHASE_SURROUNDINGS");
    if (given == nullptr) return;
    name_ = given;
    const auto &names = surroundings_names();
    if (std::find(names.begin(), names.end(), name_) == names.end()) give_up(given);
    // Done once: there is no way back.
    if (is("no_processes")) forbid_processes();
}

void Surroundings::close_streams(int first, int last) {
    for (int fd = first; fd <= last; ++fd) {
        streams_[fd] = fcntl(fd, F_DUPFD_CLOEXEC, high_descriptors);
        close(fd);
    }
}

// Numbers have a comma in it, and an I is no i. The variables make it that of the commands, too.
void Surroundings::enter_other_locale() {
    static char folder[] = "LOCPATH=/exchange/locale", all[] = "LC_ALL=tr_TR.UTF-8";
    other_environment_ = {folder, all};
    for (char **variable = environ; *variable != nullptr; ++variable) {
        other_environment_.push_back(*variable);
    }
    other_environment_.push_back(nullptr);
    environ = other_environment_.data();
    const char *const entered = setlocale(LC_ALL, "");
    if (entered == nullptr || strcmp(localeconv()->decimal_point, ",") != 0) give_up("no locale");
}

// Whoever reads them has gone, and whoever writes to the input, too.
void Surroundings::break_streams() {
    int input[2], output[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) give_up("no pipe");
    close_streams(0, 2);
    dup2(input[0], 0);
    dup2(output[1], 1);
    dup2(output[1], 2);
    for (const int end : {input[0], input[1], output[0], output[1]}) close(end);
}

void Surroundings::enter() {
    if (ordinary()) return;
    sigaction(SIGCHLD, nullptr, &child_action_);
    pthread_sigmask(SIG_SETMASK, nullptr, &signals_);
    umask_ = umask(022);
    umask(umask_);
    const int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    directory_ = fcntl(here, F_DUPFD_CLOEXEC, high_descriptors);
    close(here);
    environment_ = environ;
    locale_ = setlocale(LC_ALL, nullptr);
    if (is("children_ignored")) handle_children(SIG_IGN, 0);
    if (is("children_unwaited")) handle_children(SIG_DFL, SA_NOCLDWAIT);
    if (is("children_reaped")) handle_children(reap_everything, SA_RESTART);
    if (is("pipes_end")) {
        signal(SIGPIPE, SIG_DFL);
        break_streams();
    }
    if (is("signals_held")) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
    }
    if (is("umask_0")) umask(0);
    if (is("umask_777")) umask(0777);
    if (is("deleted_directory")) enter_deleted_directory();
    static char *nothing[] = {nullptr};
    static char odd[] = "LC_ALL=xx_YY.ODD@nowhere", odder[] = "LANG=\xff\xfe";
    static char *odd_environment[] = {odd, odder, nullptr};
    if (is("no_environment")) environ = nothing;
    if (is("odd_locale")) {
        environ = odd_environment;
        setlocale(LC_ALL, "C.UTF-8");
    }
    if (is("other_locale")) enter_other_locale();
    if (is("open_descriptors")) open_descriptors(many_descriptors);
    // The shell that runs a command needs numbers of its own below the limit.
    if (name_.starts_with(few_descriptors)) open_descriptors(some_descriptors);
    if (is("no_input")) close_streams(0, 0);
    if (is("no_output")) close_streams(1, 1);
    if (is("no_errors")) close_streams(2, 2);
    if (is("no_streams")) close_streams(0, 2);
}

void Surroundings::open_descriptors(int last) {
    set_limit(RLIMIT_NOFILE, static_cast<rlim_t>(last + high_descriptors));
    while (descriptors_.empty() || descriptors_.back() < last) {
        descriptors_.push_back(fcntl(directory_, F_DUPFD_CLOEXEC, 3));
        if (descriptors_.back() < 0) give_up("descriptors");
    }
}

void Surroundings::set_limit(__rlimit_resource_t resource, rlim_t value) {
    rlimit limit = {};
    getrlimit(resource, &limit);
    limit.rlim_cur = std::min(value, limit.rlim_max);
    if (setrlimit(resource, &limit) != 0) give_up("limit");
}

void Surroundings::call(const std::function<void()> &entry_point) {
    if (is("small_stack")) return with_small_stack(entry_point);
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    if (name_.starts_with(few_descriptors)) {
        const int wanted = atoi(name_.c_str() + strlen(few_descriptors));
        set_limit(RLIMIT_NOFILE, limit_with_free_descriptors(wanted));
    }
    if (name_.starts_with(file_size)) {
        set_limit(RLIMIT_FSIZE, strtoul(name_.c_str() + strlen(file_size), nullptr, 10));
    }
    entry_point();
    setrlimit(RLIMIT_NOFILE, &files);
    set_limit(RLIMIT_FSIZE, RLIM_INFINITY);
}

void Surroundings::leave() {
    if (ordinary()) return;
    for (int fd = 0; fd <= 2; ++fd) {
        if (streams_[fd] < 0) continue;
        dup2(streams_[fd], fd);
        close(streams_[fd]);
        streams_[fd] = -1;
    }
    for (const int fd : descriptors_) close(fd);
    descriptors_.clear();
    setlocale(LC_ALL, locale_.c_str());
    environ = environment_;
    if (fchdir(directory_) != 0) give_up("back");
    close(directory_);
    umask(umask_);
    pthread_sigmask(SIG_SETMASK, &signals_, nullptr);
    sigaction(SIGCHLD, &child_action_, nullptr);
}

void Surroundings::print(const char *line) {
    if (is("pipes_end")) return;  // the framework knows better
    for (int fd = 0; fd <= 2; ++fd) {
        if (streams_[fd] >= 0 && write(fd, line, strlen(line)) >= 0) printed_ = true;
    }
}

}  // namespace phase
