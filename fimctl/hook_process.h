// One hook: whether it may be run, and its run.
#pragma once

#include <string>
#include <vector>

namespace fimctl {

// Why a file must not be run as root; "" when it may. Others than root could otherwise say what
// root does: by the file, or by the folder that it lies in.
std::string why_refused(const std::string &file);
std::string why_folder_refused(const std::string &folder);

struct HookRun {
    std::string file, argument;
    std::vector<std::string> environment;  // "NAME=value", beside the command's own
    double timeout = 0;                    // seconds
    bool stop_when_interrupted = false;    // by the first signal; otherwise by the second
};

// Runs it in a process group of its own, without input, its output line by line in the log. At the
// time-out the group is told to end, and killed two seconds later. Returns how it failed, with the
// last line that it said; "" for status 0.
std::string run_hook(const HookRun &run);

}  // namespace fimctl
