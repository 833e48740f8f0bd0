#include "fimctl/command.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "fimctl/failure.h"
#include "fimctl/log.h"
#include "fimctl/progress.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

constexpr char place[] = "{}";
constexpr int not_started = 127;

std::string put_in(const std::string &argument, const std::string &copy) {
    std::string made;
    size_t start = 0;
    for (size_t at = argument.find(place); at != std::string::npos;
         at = argument.find(place, start)) {
        made += argument.substr(start, at - start) + copy;
        start = at + strlen(place);
    }
    return made + argument.substr(start);
}

[[noreturn]] void become(const std::vector<std::string> &command, pid_t parent) {
    // A reader of a copy that nobody looks after any more is told to stop.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(not_started);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(number, SIG_DFL);
    std::vector<std::string> texts = command;
    std::vector<char *> arguments;
    for (std::string &text : texts) arguments.push_back(text.data());
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    log::problem(command[0] + ": " + strerror(errno));
    _exit(not_started);
}

}  // namespace

std::vector<std::string> with_copies(const std::vector<std::string> &command,
                                     const std::vector<std::string> &copies) {
    std::vector<std::string> made;
    for (const std::string &argument : command) {
        if (argument.find(place) == std::string::npos) {
            made.push_back(argument);
            continue;
        }
        for (const std::string &copy : copies) made.push_back(put_in(argument, copy));
    }
    return made;
}

bool can_be_run(const std::string &program) {
    if (program.find('/') != std::string::npos) return access(program.c_str(), X_OK) == 0;
    const char *path = getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string file = (folder.empty() ? "." : folder) + "/" + program;
        if (access(file.c_str(), X_OK) == 0) return true;
    }
    return false;
}

int run_command(const std::vector<std::string> &command) {
    const pid_t parent = getpid();
    int dealt_with = signals::count();
    progress::clear();
    const pid_t pid = fork();
    if (pid == 0) become(command, parent);
    if (pid < 0) {
        throw Failure(Step::command, ExitCode::failed,
                      std::string("cannot start a process: ") + strerror(errno));
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        if (signals::count() == dealt_with) continue;
        dealt_with = signals::count();
        if (signals::from_process()) kill(pid, signals::raised());
    }
    return status;
}

}  // namespace fimctl
