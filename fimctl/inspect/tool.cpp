#include "fimctl/inspect/tool.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "fimctl/failure.h"

namespace fimctl {
namespace {

constexpr int not_started = 127;

// The reading ends of the program's two streams.
struct Streams {
    int ends[2][2] = {{-1, -1}, {-1, -1}};

    bool make() { return pipe2(ends[0], O_CLOEXEC) == 0 && pipe2(ends[1], O_CLOEXEC) == 0; }
    void shut(int side) {
        for (auto &stream : ends) {
            if (stream[side] >= 0) close(stream[side]);
            stream[side] = -1;
        }
    }
    ~Streams() {
        shut(0);
        shut(1);
    }
};

[[noreturn]] void become(const std::vector<std::string> &words, const Streams &streams) {
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(streams.ends[0][1], STDOUT_FILENO);
    dup2(streams.ends[1][1], STDERR_FILENO);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(number, SIG_DFL);
    std::vector<std::string> texts = words;
    std::vector<char *> arguments;
    for (std::string &text : texts) arguments.push_back(text.data());
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    dprintf(STDERR_FILENO, "%s: %s\n", arguments[0], strerror(errno));
    _exit(not_started);
}

// Both streams are read as they come: a program that waits for one of them would wait for ever.
void hear(Streams &streams, Said &said) {
    std::string *texts[] = {&said.out, &said.err};
    for (int open_streams = 2; open_streams > 0;) {
        pollfd waiting[2] = {{streams.ends[0][0], POLLIN, 0}, {streams.ends[1][0], POLLIN, 0}};
        if (poll(waiting, 2, -1) < 0 && errno != EINTR) return;
        for (int i = 0; i < 2; ++i) {
            if ((waiting[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            char data[4096];
            const ssize_t size = read(waiting[i].fd, data, sizeof data);
            if (size < 0 && errno == EINTR) continue;
            if (size > 0) {
                texts[i]->append(data, static_cast<size_t>(size));
                continue;
            }
            close(streams.ends[i][0]);
            streams.ends[i][0] = -1;
            --open_streams;
        }
    }
}

}  // namespace

std::string Said::reason() const {
    std::string text = err.empty() ? out : err;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    const size_t line = text.rfind('\n');
    if (line != std::string::npos) text.erase(0, line + 1);
    return text.empty() ? "exit status " + std::to_string(status) : text;
}

Said ask_tool(const std::vector<std::string> &words) {
    Said said;
    Streams streams;
    if (!streams.make()) {
        said.err = strerror(errno);
        return said;
    }
    const pid_t pid = fork();
    if (pid == 0) become(words, streams);
    streams.shut(1);
    if (pid < 0) {
        said.err = strerror(errno);
        return said;
    }
    hear(streams, said);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) said.status = WEXITSTATUS(status);
    return said;
}

PrivateFolder::PrivateFolder() {
    const char *named = getenv("TMPDIR");
    path_ = std::string(named != nullptr ? named : P_tmpdir) + "/fimctl.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
        throw Failure(Step::inspect, ExitCode::failed, path_ + ": " + strerror(errno));
    }
}

PrivateFolder::~PrivateFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

std::string command_line(const std::vector<std::string> &words) {
    std::string line;
    for (const std::string &word : words) {
        const bool plain = !word.empty() &&
                           word.find_first_of(" \t\n'\"\\$`*?[]#&;|<>(){}~!") == std::string::npos;
        std::string quoted = word;
        for (size_t at = quoted.find('\''); at != std::string::npos;
             at = quoted.find('\'', at + 4)) {
            quoted.replace(at, 1, "'\\''");
        }
        line += (line.empty() ? "" : " ") + (plain ? word : "'" + quoted + "'");
    }
    return line;
}

}  // namespace fimctl
