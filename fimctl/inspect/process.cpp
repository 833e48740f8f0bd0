#include "fimctl/inspect/process.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace fimctl {
namespace {

std::string contents(const std::string &file) {
    std::ifstream in(file);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Field 22 of the status line, counted behind the name, which may hold brackets and blanks itself.
long long start_ticks(const std::string &status) {
    constexpr int fields_behind_name = 20;
    const size_t name_end = status.rfind(')');
    if (name_end == std::string::npos) return -1;
    std::istringstream words(status.substr(name_end + 1));
    std::string word;
    for (int i = 0; i < fields_behind_name; ++i) words >> word;
    return words ? std::stoll(word) : -1;
}

}  // namespace

bool is_alive(pid_t pid) {
    errno = 0;
    return getpgid(pid) != -1 || errno != ESRCH;
}

time_t boot_time() {
    std::ifstream table("/proc/stat");
    for (std::string line; std::getline(table, line);) {
        if (line.compare(0, 6, "btime ") == 0) return std::stoll(line.substr(6));
    }
    return 0;
}

ProcessInfo process_info(pid_t pid) {
    ProcessInfo info;
    const std::string folder = "/proc/" + std::to_string(pid) + "/";
    info.command = contents(folder + "cmdline");
    while (!info.command.empty() && info.command.back() == '\0') info.command.pop_back();
    for (char &c : info.command) {
        if (static_cast<unsigned char>(c) < ' ') c = ' ';
    }
    const std::string status = contents(folder + "stat");
    if (status.empty()) return info;
    const size_t open = status.find('('), close = status.rfind(')');
    if (info.command.empty() && open != std::string::npos && close > open) {
        info.command = "[" + status.substr(open + 1, close - open - 1) + "]";
    }
    const long long ticks = start_ticks(status);
    const time_t boot = boot_time();
    if (ticks >= 0 && boot != 0) info.started = boot + ticks / sysconf(_SC_CLK_TCK);
    return info;
}

std::string utc(time_t when) {
    struct tm parts = {};
    char text[40] = "";
    gmtime_r(&when, &parts);
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

time_t from_utc(const std::string &text) {
    struct tm parts = {};
    if (strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts) == nullptr) return 0;
    return timegm(&parts);
}

std::string age_of(time_t since) {
    if (since == 0) return "";
    constexpr long minute = 60, hour = 60 * minute, day = 24 * hour;
    const long seconds = std::max<long>(0, time(nullptr) - since);
    if (seconds < 2 * minute) return std::to_string(seconds) + " s";
    if (seconds < 2 * hour) return std::to_string(seconds / minute) + " min";
    if (seconds < 2 * day) return std::to_string(seconds / hour) + " h";
    return std::to_string(seconds / day) + " d";
}

}  // namespace fimctl
