#include "fimctl/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "fimctl/failure.h"
#include "fimctl/progress.h"
#include "fimctl/write_all.h"

namespace fimctl::log {
namespace {

Settings settings;
int file = -1;
bool is_lame = false;  // the file took nothing, and that was told
int owner = 0;
std::string subject;  // "snapshot 1: "
Hand hand;
pid_t hand_of = 0;
std::vector<std::pair<std::string, std::string>> splits;

// One write a line: the phases are processes of their own and share the file.
void to_file(const std::string &text) {
    if (file < 0) return;
    char stamp[40] = "";
    const time_t now = time(nullptr);
    struct tm parts = {};
    localtime_r(&now, &parts);
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S%z ", &parts);
    const int reason = write_all(file, stamp + std::to_string(getpid()) + " " + text + "\n");
    if (reason == 0 || is_lame) return;
    // Once: the work goes on, and its story is told on standard error alone.
    is_lame = true;
    progress::write_line("fimctl: the log file " + settings.file +
                         " cannot be written: " + strerror(reason));
}

constexpr char kind_phase[] = "phase";
constexpr char kind_found[] = "found";
constexpr char kind_split[] = "split";
constexpr char kind_step[] = "step";
constexpr char kind_count[] = "count";
constexpr char kind_line[] = "line";

// What is shown: here, or by the command that this process is a phase of. A child of a phase
// inherits the hand, and must not speak in its parent's name.
void tell(const std::string &kind, const std::string &text) {
    if (hand && hand_of == getpid()) {
        hand(kind, text);
    } else if (!hand) {
        show(kind, text);
    }
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
    progress::set_up(settings.quiet);
    if (file >= 0) close(file);
    file = -1;
    is_lame = false;
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
    subject = id == 0 ? "" : "snapshot " + std::to_string(id) + ": ";
}

void progress(const std::string &text) {
    to_file(subject + text);
    tell(kind_step, subject + text);
}

void new_phase() {
    tell(kind_phase, "");
}

void found(int devices) {
    tell(kind_found, std::to_string(devices));
}

void all_split() {
    tell(kind_split, "");
}

void outcome(const std::string &text) {
    to_file(subject + text);
    progress::outcome(subject + text);
}

void waiting(const std::string &text) {
    to_file(subject + text);
    progress::waiting(subject + text);
}

void problem(const std::string &text) {
    to_file(text);
    progress::write_line("fimctl: " + text);
}

void detail(const std::string &text) {
    to_file(text);
    if (settings.level > 0) tell(kind_line, text);
}

void method_line(const char *line) {
    remember(line);
    std::string text = line;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    if (progress::is_counted(text.c_str())) tell(kind_count, text);
    to_file(text);
    if (settings.level > 0) tell(kind_line, "method: " + text);
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

void hand_over(Hand wanted) {
    hand = std::move(wanted);
    hand_of = getpid();
}

void show(const std::string &kind, const std::string &text) {
    if (kind == kind_phase) progress::new_phase();
    if (kind == kind_found) progress::found(std::stoi(text));
    if (kind == kind_split) progress::all_split();
    if (kind == kind_step) progress::step(text);
    if (kind == kind_count) progress::method_line(text.c_str());
    if (kind == kind_line) progress::write_line("fimctl: " + text);
}

}  // namespace fimctl::log
