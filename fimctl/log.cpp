#include "fimctl/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "fimctl/failure.h"

namespace fimctl::log {
namespace {

Settings settings;
int file = -1;
int owner = 0;
std::string subject;  // "snapshot 1: "
std::vector<std::pair<std::string, std::string>> splits;

void write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t done = write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return;
        text.remove_prefix(static_cast<size_t>(done));
    }
}

// One write a line: the phases are processes of their own and share the file.
void to_file(const std::string &text) {
    if (file < 0) return;
    char stamp[40] = "";
    const time_t now = time(nullptr);
    struct tm parts = {};
    localtime_r(&now, &parts);
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S%z ", &parts);
    write_all(file, stamp + std::to_string(getpid()) + " " + text + "\n");
}

void to_terminal(const std::string &text) {
    write_all(STDERR_FILENO, "fimctl: " + text + "\n");
}

void remember(const char *line) {
    int pid = 0;
    if (sscanf(line, "lock pid(%d)", &pid) == 1) owner = pid;
    char device[16] = "";
    char bcv[16] = "";
    if (sscanf(line, "Adding <%15[^,], %15[^>]> to split list", device, bcv) == 2) {
        splits.emplace_back(device, bcv);
    }
}

}  // namespace

void set_up(const Settings &wanted) {
    settings = wanted;
    if (file >= 0) close(file);
    file = -1;
    if (settings.file.empty()) return;
    file = open(settings.file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0600);
    if (file < 0) {
        throw Failure(Step::check, errno == EACCES ? ExitCode::permission : ExitCode::usage,
                      "cannot open the log file " + settings.file + ": " + strerror(errno));
    }
}

int level() {
    return settings.level;
}

void about(long id) {
    subject = "snapshot " + std::to_string(id) + ": ";
}

void progress(const std::string &text) {
    to_file(subject + text);
    if (!settings.quiet) to_terminal(subject + text);
}

void problem(const std::string &text) {
    to_file(text);
    to_terminal(text);
}

void method_line(const char *line) {
    remember(line);
    std::string text = line;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    to_file(text);
    if (settings.level > 0) to_terminal("method: " + text);
}

int other_owner() {
    return owner;
}

std::vector<std::pair<std::string, std::string>> split_list() {
    return splits;
}

void forget() {
    owner = 0;
    splits.clear();
}

}  // namespace fimctl::log
