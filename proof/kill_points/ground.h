// A world in which the processes of a scenario are killed, one point after the other.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "proof/kit/scenario.h"

namespace proof {

// A system call that changes something, and how often a process makes it.
struct Place {
    std::string name;  // "commit: array SymDevListBcvControl", as tfkill names it
    size_t calls = 0;
};

// Where a kill meets its process.
struct Kill {
    std::string name;
    size_t call = 1;  // from 1
    bool after = false;
    bool all = false;  // with fimctl: every process of it
};

// What is wrong, for whoever reads the row; empty: the point held.
using Wrong = std::vector<std::string>;

// The programs of this row, and what waits for processes, in the world's exchange folder.
void install_tools(test::LabWorld &world);
// A line that runs a command under tfkill, with temporary files in a folder of its own.
std::string killing_line(const Words &options, const std::string &command);
// The calls that tfkill saw, in the order in which each was seen first.
std::vector<Place> seen_places(const test::LabWorld &world);
bool was_met(const test::LabWorld &world);
Words options_of(const Kill &kill);
std::string quoted(const std::string &word);

// The checks that hold right after a kill: what the killed process had started ends by itself, no
// file system is frozen, and the array's invariants hold.
void check_after_kill(test::LabWorld &world, const Words &hosts, Wrong &wrong);
// The checksums of what is mounted below /data on the current host, and of the first megabyte of
// these devices.
std::string originals(test::LabWorld &world, const Words &devices);
// Pictures of all hosts, and the checksums of the originals below /data.
std::string picture_of(test::LabWorld &world, const Words &hosts, const Words &devices);
// What one has and the other has not, line by line.
std::string difference(const std::string &before, const std::string &after);

class Ground {
  public:
    explicit Ground(const Scenario &scenario);
    ~Ground();

    // What each process does when nothing is in its way.
    std::vector<std::vector<Place>> places();
    // Kills the n-th process there and recovers; a world that is not what it was is not used again.
    Wrong kill(size_t process, const Kill &kill, bool verbose);

  private:
    void make_world();
    void prepare(const Process &process);
    void run(const Process &process, Wrong &wrong);
    // The processes of [begin, end); prepared: the lines before the first of them have been run.
    void run_all(size_t begin, size_t end, bool prepared, Wrong &wrong);
    // Runs the process under tfkill. Returns its status.
    int run_watched(const Process &process, const Words &options, std::string &said);
    void kill_it(const Process &process, const Kill &kill, Wrong &wrong);
    void tell() const;
    void follow(const Process &process);
    void settle();
    std::string picture_at_the_end();
    bool texts_are_kept(const Process &process) const;
    void write_taken_down(const Process &process) const;
    void leave_restored_out(const Process &process) const;
    bool is_shown_once(const Process &process) const;
    void recover(size_t killed, bool gives_up, Wrong &wrong);

    const Scenario &scenario_;
    Words devices_;  // that are objects themselves
    std::unique_ptr<test::LabWorld> world_;
    std::string before_;
};

}  // namespace proof
