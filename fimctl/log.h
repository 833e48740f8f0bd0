// What fimctl tells: progress and failures on standard error, the method's lines at the asked
// level, and all of it in the log file. Standard output is kept clean for results and for the
// command that reads the copy.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace fimctl::log {

struct Settings {
    int level = 0;       // the method's log level: 0, 1 (commands) or 2 (traces)
    bool quiet = false;  // no progress lines
    std::string file;    // "" for none
};

// Opens the log file (appended, 0600); throws Failure when that cannot be done.
void set_up(const Settings &settings);
int level();

// The snapshot that progress is about from now on, in this process and those that it starts; 0 for
// none.
void about(long id);
// A phase begins, and the method counts anew.
void new_phase();
void found(int devices);
// The pairs that the method was going to split are split.
void all_split();
// What has been achieved: a line that stays, also on a terminal.
void outcome(const std::string &text);
// A step that the work has come to; somebody else who must end first; a line that must be seen.
void progress(const std::string &text);
void waiting(const std::string &text);
void problem(const std::string &text);
// A line that is worth keeping, and worth showing to who asked for the method's lines.
void detail(const std::string &text);

// The sink that the method gets. Beside showing the line it remembers the two things that the
// method says nowhere else: who owns the array's mirrors, and which pairs it has split.
void method_line(const char *line);
int other_owner();  // process id, 0 when none was named since the last forget()
std::vector<std::pair<std::string, std::string>> split_list();
void forget();

// In a phase: what is to be shown is handed over to the command, which alone writes on the
// terminal. kind and text go into show() there.
using Hand = std::function<void(const std::string &kind, const std::string &text)>;
void hand_over(Hand hand);
void show(const std::string &kind, const std::string &text);

}  // namespace fimctl::log
