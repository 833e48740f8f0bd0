#include "fimctl/tool.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace fimctl {
namespace {

constexpr int not_started = 127;
constexpr int killed = 128;
constexpr char plain_characters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.,/:+=@%";

// A pipe for each of the program's two streams.
class Streams {
  public:
    enum Side { reading, writing };

    ~Streams() {
        shut(reading);
        shut(writing);
    }
    bool make() { return pipe2(ends_[0], O_CLOEXEC) == 0 && pipe2(ends_[1], O_CLOEXEC) == 0; }
    int end(size_t stream, Side side) const { return ends_[stream][side]; }
    void shut(size_t stream, Side side) {
        if (ends_[stream][side] >= 0) close(ends_[stream][side]);
        ends_[stream][side] = -1;
    }
    void shut(Side side) {
        shut(0, side);
        shut(1, side);
    }

  private:
    int ends_[2][2] = {{-1, -1}, {-1, -1}};
};

[[noreturn]] void become(const std::vector<std::string> &words, const Streams &streams,
                         Reach reach) {
    if (reach == Reach::nobody) setpgid(0, 0);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(streams.end(0, Streams::writing), STDOUT_FILENO);
    dup2(streams.end(1, Streams::writing), STDERR_FILENO);
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
void hear(Streams &streams, ToolResult &result) {
    std::string *texts[] = {&result.out, &result.err};
    for (int open_streams = 2; open_streams > 0;) {
        pollfd waiting[2] = {{streams.end(0, Streams::reading), POLLIN, 0},
                             {streams.end(1, Streams::reading), POLLIN, 0}};
        if (poll(waiting, 2, -1) < 0 && errno != EINTR) return;
        for (size_t i = 0; i < 2; ++i) {
            if ((waiting[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            char data[4096];
            const ssize_t size = read(waiting[i].fd, data, sizeof data);
            if (size < 0 && errno == EINTR) continue;
            if (size > 0) {
                texts[i]->append(data, static_cast<size_t>(size));
                result.output.append(data, static_cast<size_t>(size));
                continue;
            }
            streams.shut(i, Streams::reading);
            --open_streams;
        }
    }
}

ToolResult could_not_start(int error) {
    ToolResult result;
    result.err = result.output = strerror(error);
    return result;
}

}  // namespace

std::string ToolResult::reason() const {
    const size_t last = output.find_last_not_of('\n');
    if (last == std::string::npos) return "exit status " + std::to_string(status);
    const size_t before = output.rfind('\n', last);
    const size_t start = before == std::string::npos ? 0 : before + 1;
    return output.substr(start, last + 1 - start);
}

ToolResult run_tool(const std::vector<std::string> &words, Reach reach) {
    Streams streams;
    if (!streams.make()) return could_not_start(errno);
    const pid_t pid = fork();
    // Kept before anything is closed: that may set it anew.
    const int error = errno;
    if (pid == 0) become(words, streams, reach);
    if (pid < 0) return could_not_start(error);
    streams.shut(Streams::writing);
    ToolResult result;
    hear(streams, result);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : killed + WTERMSIG(status);
    return result;
}

std::string shell_word(const std::string &word) {
    if (!word.empty() && word.find_first_not_of(plain_characters) == std::string::npos) return word;
    std::string quoted = "'";
    for (const char character : word) {
        if (character == '\'') {
            quoted += "'\\''";
        } else {
            quoted += character;
        }
    }
    return quoted + "'";
}

std::string command_line(const std::vector<std::string> &words) {
    std::string line;
    for (const std::string &word : words) line += (line.empty() ? "" : " ") + shell_word(word);
    return line;
}

}  // namespace fimctl
