// What is left of a frozen file system when both processes that answer for its thaw were killed.
//
// The system thaws nothing by itself, and it cannot be asked what is frozen without being written
// to: who writes would hang. So the guardian writes down what it is going to freeze, and takes the
// note away when all of it is thawed. A note whose guardian is gone names what may be frozen still.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace fimctl {

struct FrozenMark {
    std::vector<std::string> directories;
    pid_t guardian = 0;
    time_t written = 0;
};

// Where the guardian of a snapshot of the catalogue in this state directory keeps its note: in the
// folder of its phase's temporary files, which goes with the phase.
std::string frozen_mark_of(const std::string &state_directory, int64_t id);

// Both do what they can and fail silently: a note that cannot be written must not cost a snapshot.
// An empty file name stands for no note.
void write_frozen_mark(const std::string &file, const std::vector<std::string> &directories);
void remove_frozen_mark(const std::string &file);

// What a note says; no directories when there is none, or when it was written before the system was
// started.
FrozenMark read_frozen_mark(const std::string &file);

// Thaws one file system; true when it was frozen.
bool thaw_file_system(const std::string &directory);
// Thaws what a note names and takes it away; the directories that were frozen indeed.
std::vector<std::string> thaw_marked(const std::string &file);

}  // namespace fimctl
