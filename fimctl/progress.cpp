#include "fimctl/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string_view>

#include "fimctl/write_all.h"

namespace fimctl::progress {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto between_drawings = std::chrono::milliseconds(100);
constexpr long told_from = 2;  // seconds; what is over sooner is not worth a number
constexpr size_t usual_width = 80;
constexpr char take_away[] = "\r\033[K";

struct State {
    bool quiet = false, terminal = false, drawn = false, retrying = false;
    int lines = 0;  // of class Line
    std::string text;
    int devices = 0, to_establish = 0, to_split = 0, split = 0;
    std::string on_screen;
    Clock::time_point since, told, last_drawn;
    Clock::duration between_lines;  // where there is no terminal
    std::set<std::string> tried;    // the steps that a try has reached
};
State now;

void to_terminal(const std::string &text) {
    write_all(STDERR_FILENO, text);
}

size_t width() {
    struct winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return usual_width;
    return size.ws_col;
}

// A job in the background leaves the terminal to the one in front.
bool is_in_front() {
    const pid_t group = tcgetpgrp(STDERR_FILENO);
    return group < 0 || group == getpgrp();
}

bool is_live() {
    return now.lines > 0 && now.terminal && !now.quiet && is_in_front();
}

std::string number_of(int count, const char *one, const char *many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string counts() {
    std::string text;
    if (now.devices > 0) text = number_of(now.devices, "device", "devices") + " found";
    if (now.to_establish > 0) {
        text += (text.empty() ? "" : ", ") + number_of(now.to_establish, "pair", "pairs") +
                " to establish";
    }
    const int pairs = now.split > 0 ? now.split : now.to_split;
    if (pairs > 0) {
        text += (text.empty() ? "" : ", ") + number_of(pairs, "pair", "pairs") +
                (now.split > 0 ? " split" : " to split");
    }
    return text;
}

long seconds() {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - now.since).count());
}

void draw() {
    if (!is_live() || now.text.empty()) return;
    const std::string line = shown("fimctl: " + now.text, counts(), seconds(), width());
    if (now.drawn && line == now.on_screen) return;
    now.last_drawn = Clock::now();
    now.drawn = true;
    now.on_screen = line;
    to_terminal(take_away + line);
}

// The method tells of each device that it has found in its traces alone; of pairs always.
bool is_device(std::string_view line) {
    return line.find(": BCV ") != std::string_view::npos && line.ends_with(" information:");
}

bool is_split(std::string_view line) {
    return line.starts_with("Adding <") && line.ends_with("> to split list");
}

// How many pairs are going to be established, at the start or at the end of a snapshot.
int establishes(const char *line) {
    int count = 0;
    if (sscanf(line, "Total BCVs to resync at start : %d", &count) == 1) return count;
    return sscanf(line, "Total BCVs to resync : %d", &count) == 1 ? count : 0;
}

void begin(const std::string &text) {
    now.text = text;
    now.to_establish = 0;
    now.since = now.told = Clock::now();
    if (is_live()) {
        draw();
    } else if (!now.quiet) {
        write_line("fimctl: " + text);
    }
}

}  // namespace

void set_up(bool quiet, std::chrono::milliseconds between_lines) {
    const char *kind = getenv("TERM");
    now = State();
    now.quiet = quiet;
    now.between_lines = between_lines;
    now.terminal = isatty(STDERR_FILENO) == 1 && (kind == nullptr || strcmp(kind, "dumb") != 0);
}

void new_phase() {
    now.devices = now.to_establish = now.to_split = now.split = 0;
}

void step(const std::string &text) {
    const bool known = !now.tried.insert(text).second;
    if (now.retrying && known) return;
    if (now.retrying) now.tried = {text};
    now.retrying = false;
    begin(text);
}

void waiting(const std::string &text) {
    if (now.retrying) {
        tick();
        return;
    }
    begin(text);
    now.retrying = true;
}

void outcome(const std::string &text) {
    now.text.clear();
    if (!now.quiet) write_line("fimctl: " + text);
}

bool is_counted(const char *line) {
    const std::string_view text = line;
    return is_device(text) || is_split(text) || establishes(line) > 0;
}

void method_line(const char *line) {
    const std::string_view text = line;
    if (is_device(text)) ++now.devices;
    if (is_split(text)) ++now.to_split;
    if (establishes(line) > 0) now.to_establish = establishes(line);
    if (now.drawn && Clock::now() - now.last_drawn >= between_drawings) draw();
}

void found(int devices) {
    now.devices = devices;
}

void all_split() {
    now.split = now.to_split;
}

void tick() {
    if (now.text.empty() || now.quiet) return;
    if (is_live()) {
        draw();
    } else if (Clock::now() - now.told >= now.between_lines) {
        now.told = Clock::now();
        write_line(shown("fimctl: " + now.text, counts(), seconds(), std::string::npos));
    }
}

void clear() {
    if (!now.drawn) return;
    now.drawn = false;
    to_terminal(take_away);
}

void write_line(const std::string &text) {
    to_terminal((now.drawn ? take_away : "") + text + "\n");
    now.drawn = false;
}

Line::Line() {
    if (now.lines++ > 0) return;
    now.text.clear();
    now.tried.clear();
    now.retrying = false;
    new_phase();
}

Line::~Line() {
    if (--now.lines > 0) return;
    clear();
    now.text.clear();
}

std::string shown(const std::string &text, const std::string &counts, long seconds, size_t width) {
    std::string line = text;
    if (!counts.empty()) line += "; " + counts;
    if (seconds >= told_from) line += "; " + std::to_string(seconds) + " s";
    for (char &c : line) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\177') c = '?';
    }
    if (line.size() < width) return line;
    // The last column stays free, since a terminal may begin a new line behind it; nor is a
    // character of several bytes cut in two.
    size_t end = width - 1;
    while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0) == 0x80) --end;
    return line.substr(0, end);
}

}  // namespace fimctl::progress
