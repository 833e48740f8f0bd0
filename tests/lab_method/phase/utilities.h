// What the library exports for the framework itself: names of devices, mounts, the quiesce of file
// systems, the lock list and the configuration parser.
#pragma once

#include <string>
#include <vector>

namespace phase {

// Calls the routines that the lines name, in their order:
//   fstomp PATH | fstoblock PATH | fstoraw PATH | find_mnt RAW | rawtofs RAW | raw_to_block RAW |
//   statdev PATH | fsdevinfo PATH
//   lock_fs TYPE PATH       with the unlock_fs that belongs to it
//   locksnap TYPE PATH      with its unlocksnap
//   add_to_lock_list TYPE NAME     and then check_lock_list of the name
//   parse TEXT              keywords a to j of all kinds, one by each routine that makes an entry
// Each diagnostic goes to log, and behind it a line "LINE gives RESULT...": a line that no fault
// changes says the same in every run. Returns what the routines changed of this process.
std::vector<std::string> call_utilities(void *library, const std::vector<std::string> &lines,
                                        void (*log)(const char *line));

// From here on the kernel takes the freeze and the thaw of a qzfs as done, whatever is mounted.
void accept_qzfs();

// From here on this process alone has a network, in which the host has one address (version 4).
void enter_own_network(const char *address);

}  // namespace phase
