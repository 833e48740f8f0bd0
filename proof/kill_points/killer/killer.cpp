// Runs a program and ends it with SIGKILL before or after one of its system calls that change
// something.
//
// usage: tfkill [--follow] REPORT COMMAND...
//        tfkill [--follow] --at NAME --call N --when before|after [--all] REPORT COMMAND...
//
// REPORT gets a line for every such call, as it is made: what the process was at, a colon, and the
// call. That line is the NAME of a call, and N, from 1, says which of those with this name is
// meant. What a process is at is the step that tfphase says it takes; what it does at "run", or
// before its first step, is none of the method's business. The programs that it starts are never
// touched: with its end they go on alone.
//
// --follow: for fimctl. Its own processes count, too, and what they are at is who they are:
// "fimctl", "phase N" of its phases, "guardian N". --all: ends all of them at once.
//
// Its status is the command's, 128 + a signal that ended it. "met" is the last line of REPORT when
// the call was met.
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "proof/kill_points/killer/calls.h"

namespace killer {
namespace {

constexpr int not_started = 127, wrong_usage = 125;
// Of tfphase: what is no step of the method.
const std::set<std::string> no_steps = {"tfphase", "run", "tfkill"};

struct Wish {
    bool follow = false, all = false, after = false;
    std::string name;  // "" to record only
    size_t call = 1;
    std::string report;
    char **command = nullptr;
};

[[noreturn]] void give_up(const std::string &why) {
    fprintf(stderr, "tfkill: %s: %s\n", why.c_str(), strerror(errno));
    exit(wrong_usage);
}

// A process, or a thread of one, that is watched.
struct Watched {
    pid_t process = -1;    // that a thread belongs to
    std::string who;       // with --follow
    int depth = 0;         // of it below the command
    bool started = false;  // its first stop has been seen
    bool inside = false;   // between the entry and the exit of a call
    std::string change;    // the name of that call, if it changes something
    bool meant = false;    // it is the one to be met
    uint32_t rest = 0;     // of a request, still to be sent by further calls
    bool head_sent = false;
};

class Tracer {
  public:
    explicit Tracer(const Wish &wish) : wish_(wish), report_(fopen(wish.report.c_str(), "we")) {
        if (report_ == nullptr) give_up(wish.report);
    }
    ~Tracer() { fclose(report_); }
    Tracer(const Tracer &) = delete;
    Tracer &operator=(const Tracer &) = delete;

    int run() {
        start();
        int result = 0;
        for (;;) {
            int status = 0;
            const pid_t pid = waitpid(-1, &status, __WALL);
            if (pid < 0 && errno == EINTR) continue;
            if (pid < 0) break;  // there is none any more
            if (WIFSTOPPED(status)) {
                stopped(pid, status);
                continue;
            }
            watched_.erase(pid);
            // Its other processes, with --follow, are still heard to their ends.
            if (pid != first_) continue;
            result = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
        if (met_) fprintf(report_, "met\n");
        return result;
    }

  private:
    void start() {
        first_ = fork();
        if (first_ < 0) give_up("fork");
        if (first_ == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
            execvp(wish_.command[0], wish_.command);
            fprintf(stderr, "tfkill: %s: %s\n", wish_.command[0], strerror(errno));
            _exit(not_started);
        }
        int status = 0;
        if (waitpid(first_, &status, 0) != first_ || !WIFSTOPPED(status)) give_up("its first stop");
        unsigned long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
        if (wish_.follow) {
            options |= PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE;
        }
        if (ptrace(PTRACE_SETOPTIONS, first_, nullptr, options) != 0) give_up("trace");
        Watched &one = watched_[first_];
        one.process = first_;
        one.who = "fimctl";
        one.started = true;
        go_on(first_);
    }

    static void go_on(pid_t pid, int signal = 0) {
        ptrace(PTRACE_SYSCALL, pid, nullptr, static_cast<long>(signal));
    }

    void stopped(pid_t pid, int status) {
        Watched &one = watched_[pid];
        const int signal = WSTOPSIG(status), event = status >> 16;
        if (signal == (SIGTRAP | 0x80)) return at_call(pid, one);
        if (event == PTRACE_EVENT_EXEC) return at_exec(pid);
        if (event != 0) {
            if (signal == SIGTRAP) adopt(pid, event);
            return go_on(pid);
        }
        if (!one.started && signal == SIGSTOP) {
            one.started = true;
            return go_on(pid);
        }
        go_on(pid, signal);
    }

    // A program that is no part of fimctl, or of the driver, is left alone.
    void at_exec(pid_t pid) {
        if (pid == first_) return go_on(pid);
        watched_.erase(pid);
        ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
    }

    void adopt(pid_t parent, int event) {
        unsigned long number = 0;
        ptrace(PTRACE_GETEVENTMSG, parent, nullptr, &number);
        const auto child = static_cast<pid_t>(number);
        const Watched &from = watched_[parent];
        Watched &one = watched_[child];  // its first stop may have been seen already
        if (event == PTRACE_EVENT_CLONE && is_thread(child, from.process)) {
            one.process = from.process;
            one.who = from.who;
            one.depth = from.depth;
            return;
        }
        one.process = child;
        one.depth = from.depth + 1;
        one.who = "?";  // until it has done something, which a program that is started never does
    }

    static bool is_thread(pid_t thread, pid_t process) {
        const std::string task =
            "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread);
        return access(task.c_str(), F_OK) == 0;
    }

    std::string who(pid_t pid, Watched &one) {
        if (!wish_.follow) return Process(pid).step();
        if (one.who == "?") {
            const std::string name = one.depth == 1 ? "phase" : "guardian";
            one.who = name + " " + std::to_string(++numbers_[name]);
        }
        return one.who;
    }

    void at_call(pid_t pid, Watched &one) {
        __ptrace_syscall_info information = {};
        ptrace(static_cast<__ptrace_request>(PTRACE_GET_SYSCALL_INFO), pid, sizeof information,
               &information);
        if (information.op == PTRACE_SYSCALL_INFO_ENTRY) {
            one.inside = true;
            SystemCall call;
            call.number = information.entry.nr;
            for (size_t i = 0; i < 6; ++i) call.arguments[i] = information.entry.args[i];
            enter(pid, one, call);
        } else if (one.inside) {
            one.inside = false;
            leave(one, information.exit.rval);
        }
        if (watched_.count(pid) != 0) go_on(pid);
    }

    void enter(pid_t pid, Watched &one, const SystemCall &call) {
        if (one.rest > 0 && call.number == SYS_sendto) return;  // it belongs to the call before
        one.change.clear();
        one.meant = false;
        one.rest = 0;
        const Process process(pid);
        const auto change = name_of_change(process, call);
        if (!change) return;
        const std::string at = who(pid, one);
        if (!wish_.follow && no_steps.count(at) != 0) return;
        one.change = at + ": " + *change;
        fprintf(report_, "%s\n", one.change.c_str());
        fflush(report_);
        one.meant = one.change == wish_.name && ++seen_ == wish_.call;
        if (change->starts_with("array ")) one.rest = rest_of_request(process, call);
        if (one.meant && !wish_.after) end(one);
    }

    void leave(Watched &one, int64_t result) {
        if (one.change.empty()) return;
        if (one.change.find(": array ") != std::string::npos && result > 0) {
            // A request counts as made when it is there as a whole, its head first.
            if (one.head_sent) one.rest -= std::min(one.rest, static_cast<uint32_t>(result));
            one.head_sent = one.rest > 0;
            if (one.head_sent) return;
        }
        if (one.meant && wish_.after) end(one);
        one.change.clear();
    }

    // The process that stands at the call, and with --all the others.
    void end(const Watched &one) {
        met_ = true;
        std::set<pid_t> ended = {one.process};
        if (wish_.all) {
            for (const auto &other : watched_) ended.insert(other.second.process);
        }
        for (const pid_t process : ended) kill(process, SIGKILL);
    }

    const Wish &wish_;
    FILE *report_;
    pid_t first_ = -1;
    std::map<pid_t, Watched> watched_;
    std::map<std::string, int> numbers_;
    size_t seen_ = 0;
    bool met_ = false;
};

Wish wish_of(char **argv) {
    Wish wish;
    auto value = [&argv] {
        if (argv[1] == nullptr) give_up("a value is missing");
        return std::string(*++argv);
    };
    for (++argv; *argv != nullptr && strncmp(*argv, "--", 2) == 0; ++argv) {
        const std::string option = *argv;
        if (option == "--follow") {
            wish.follow = true;
        } else if (option == "--all") {
            wish.all = true;
        } else if (option == "--at") {
            wish.name = value();
        } else if (option == "--call") {
            wish.call = std::stoul(value());
        } else if (option == "--when") {
            wish.after = value() == "after";
        } else {
            give_up(option);
        }
    }
    if (argv[0] == nullptr || argv[1] == nullptr) give_up("usage: tfkill ... REPORT COMMAND...");
    wish.report = argv[0];
    wish.command = argv + 1;
    return wish;
}

}  // namespace
}  // namespace killer

int main(int, char **argv) {
    const killer::Wish wish = killer::wish_of(argv);
    return killer::Tracer(wish).run();
}
