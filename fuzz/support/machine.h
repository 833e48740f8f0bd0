// The machine that the code under test sees: files, device nodes, commands, pauses. Nothing of the
// real one is touched, and what no caller of the library ever asked for is a finding.
//
// Files are anonymous memory under the paths that the code names, so its descriptors, streams and
// truncations are the kernel's. Everything that lives outside a file descriptor (paths, commands,
// sleep, process groups) is answered here.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <bitset>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace fuzz {

// Descriptors that are looked at for what the code under test left open; it never has as many.
inline constexpr size_t watched_descriptors = 24;

using Words = std::vector<std::string>;

// What a command does: its exit status, and what it prints.
struct Answer {
    int status = 0;
    std::string output;
};

class Machine {
  public:
    // From here on the calls of this thread are answered by this machine.
    Machine();
    // The calls go to the real machine again. A descriptor that was left open, or a stream, is a
    // finding.
    ~Machine();
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;

    void put_file(const std::string &path, const std::string &text);
    std::string file(const std::string &path) const;
    bool has_file(const std::string &path) const { return files_.contains(path); }
    void remove_file(const std::string &path);
    // The temporary names that were handed out and whose files are still there.
    std::vector<std::string> temporary_files() const;

    // Answers a command by its words; without it every command succeeds and prints nothing.
    std::function<Answer(const Words &)> on_command;
    // Called after so many pauses that no real array would need them: who answers the polls has to
    // come to an end.
    std::function<void()> on_patience_lost;
    // Every command line of system and popen, parsed.
    std::vector<Words> commands;
    // Files that the library may delete beyond its own temporary and counter files.
    std::set<std::string> may_unlink;
    // Programs that are installed beyond the tools that every host has.
    std::set<std::string> installed;
    // Processes that live beside this one.
    std::set<pid_t> alive;
    // Where the temporary-name service puts its names.
    std::string temporary_folder = "/tmp";

    // What the replaced calls need; see machine_calls.cpp.
    int open_file(const char *path, int flags, mode_t mode);
    bool describe(const char *path, struct stat *status) const;
    int unlink_file(const char *path);
    char *new_temporary_name(const char *prefix);
    int run(const char *line);
    std::string run_for_output(const char *line);
    void pause();

  private:
    bool may_create(const std::string &path) const;
    Answer answer(const Words &words);
    void deliver(const std::string &stream, const std::string &output, const char *line);

    std::map<std::string, int> files_;  // descriptors of anonymous memory
    std::set<std::string> temporary_names_;
    std::bitset<watched_descriptors> descriptors_;  // those open at the start
    unsigned pauses_ = 0;
};

// The machine of this thread, or null while calls are the real ones.
Machine *machine();
// The number of the device that holds a path, as stat on the fake machine has it.
uint64_t device_number(const std::string &path);

// Calls of the real machine for as long as it lives: for what a target does itself.
class RealCalls {
  public:
    RealCalls();
    ~RealCalls();
    RealCalls(const RealCalls &) = delete;
    RealCalls &operator=(const RealCalls &) = delete;

  private:
    Machine *kept_;
};

}  // namespace fuzz
