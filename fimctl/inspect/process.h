// What the system says about a process and about instants: for files that name an owner.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>

namespace fimctl {

// As the method asks: a process that ended but was not waited for still exists, and still owns.
// One that cannot be asked about counts as alive.
bool is_alive(pid_t pid);

struct ProcessInfo {
    std::string command;  // its command line, else its name in brackets; "" when unknown
    time_t started = 0;   // 0 when unknown
};
ProcessInfo process_info(pid_t pid);

time_t boot_time();

// "2026-11-21T15:40:12Z"
std::string utc(time_t when);
// The instant of such a text, 0 for anything else.
time_t from_utc(const std::string &text);
// "12 s", "5 min", "3 h", "2 d": how long ago, as a person would say it.
std::string age_of(time_t since);

}  // namespace fimctl
