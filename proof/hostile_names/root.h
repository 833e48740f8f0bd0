// A root of its own for every point, made and gone within milliseconds: the machine's files with
// every tool replaced by the recorder, an overlay that shows what was changed, own /tmp and /dev.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace hostile {

using Words = std::vector<std::string>;

// What one point showed.
struct Seen {
    int status = -1;          // of the process: 0, or 128 and a signal, or what it exited with
    std::string outcome;      // of the calls, "freeze 0, volumes 11 3 QfMCmn0064N"
    std::vector<Words> runs;  // of tools, the base name first, in their order
    std::string tripped;      // what was run that is no tool; empty when all is well
    std::set<std::string> changed;  // paths that were made, changed, or removed
};

// Moves this process into a mount namespace of its own and puts the recorder at the place of every
// tool. Needs root.
class Roots {
  public:
    // folder: the folder of the row's programs.
    explicit Roots(const std::string &folder);

    // Runs both in a new process in a root of its own. What set_up makes is no change; run returns
    // the outcome. The process is killed after some seconds.
    Seen run(const std::function<void()> &set_up, const std::function<std::string()> &run);

  private:
    int count_ = 0;
};

// For set_up: folders above included, parts of a name that no file can have left out. Returns
// whether all of it is there.
bool make_folder(const std::string &path);
bool make_file(const std::string &path, const std::string &text = "");
bool make_node(const std::string &path, mode_t type);

}  // namespace hostile
