#include "fimctl/restore/tools.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "fimctl/log.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

constexpr int not_started = 127;
constexpr int errors_corrected = 1;  // fsck's word for "it is good now"

[[noreturn]] void become(const std::vector<std::string> &words, int output) {
    // Out of the terminal's reach: an interruption must not hit an import or a mount half-way.
    setpgid(0, 0);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    signal(SIGPIPE, SIG_DFL);
    std::vector<std::string> texts = words;
    std::vector<char *> arguments;
    for (std::string &text : texts) arguments.push_back(text.data());
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    const std::string line = words[0] + ": " + strerror(errno) + "\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    _exit(not_started);
}

std::string read_all(int file) {
    std::string text;
    char part[4096];
    for (;;) {
        const ssize_t size = read(file, part, sizeof part);
        if (size > 0) text.append(part, static_cast<size_t>(size));
        if (size == 0 || (size < 0 && errno != EINTR)) return text;
    }
}

}  // namespace

std::string ToolResult::reason() const {
    size_t end = output.size();
    while (end > 0 && output[end - 1] == '\n') --end;
    if (end == 0) return "status " + std::to_string(status);
    const size_t start = output.rfind('\n', end - 1);
    return start == std::string::npos ? output.substr(0, end)
                                      : output.substr(start + 1, end - start - 1);
}

ToolResult run_tool(const std::vector<std::string> &words) {
    ToolResult result;
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        result.output = strerror(errno);
        return result;
    }
    const pid_t pid = fork();
    if (pid == 0) become(words, ends[1]);
    const int reason = errno;
    close(ends[1]);
    result.output = pid < 0 ? strerror(reason) : read_all(ends[0]);
    close(ends[0]);
    if (pid < 0) return result;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

bool is_imported(const std::string &group) {
    return run_tool({path::disk_group_tool, "list", group}).good();
}

ToolResult import_group(const std::string &group, const std::string &clone) {
    log::progress("import disk group " + group);
    const std::vector<std::string> import = {path::disk_group_tool, "-C", "import", group};
    ToolResult result = run_tool(import);
    if (!result.good()) {
        run_tool({path::daemon_tool, "enable"});
        result = run_tool(import);
    }
    if (!result.good() &&
        !run_tool({path::disk_group_tool, "-C", "-n", group, "import", clone}).good()) {
        return result;
    }
    return run_tool({path::volume_tool, "-g", group, "startall"});
}

ToolResult deport_group(const std::string &group) {
    return run_tool({path::disk_group_tool, "deport", group});
}

void put_disk_online(const std::string &raw) {
    for (const std::string folder : {"/dev/qz/rdmp/", "/dev/qz/dmp/", "/dev/rdsk/", "/dev/"}) {
        if (raw.compare(0, folder.size(), folder) != 0) continue;
        run_tool({path::disk_tool, "online", raw.substr(folder.size())});
        return;
    }
}

ToolResult check_file_system(const std::string &block, const std::string &type) {
    log::progress("check " + block);
    ToolResult result = run_tool({"fsck", "-T", "-t", type, "-p", block});
    if (result.status == errors_corrected) result.status = 0;
    return result;
}

ToolResult mount_file_system(const std::string &block, const std::string &directory,
                             const std::string &type, const std::string &options) {
    log::progress("mount " + directory);
    std::vector<std::string> words = {"mount", "-t", type};
    // The mirror beside it may carry the same identifier, and the kernel takes no two of one.
    std::string all = type == "xfs" ? "nouuid" : "";
    if (!options.empty()) all += (all.empty() ? "" : ",") + options;
    if (!all.empty()) words.insert(words.end(), {"-o", all});
    words.insert(words.end(), {"--", block, directory});
    return run_tool(words);
}

ToolResult set_mount_options(const std::string &directory, const std::string &options) {
    return run_tool({"mount", "-o", "remount,bind," + options, "--", directory});
}

ToolResult unmount(const std::string &directory) {
    return run_tool({"umount", "--", directory});
}

}  // namespace fimctl
