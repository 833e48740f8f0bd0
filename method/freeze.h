// The first step of a snapshot: one object becomes a record with its devices, and every device gets
// a BCV that mirrors it.
//
// The entry point is TimeFinder_freeze (include/timefinder.h). This header is its inside: the one
// record that its phases share, and the phases in the order in which they run.
#pragma once

#include <cstdint>

#include "include/records.h"
#include "method/text.h"

// The plex that the disk-group clone tool works on: "DEFAULT" until a configuration string names
// one, which then holds for every later freeze of the process as well. Freed at unload.
extern char *g_plexname;

namespace tf {

inline constexpr char freeze_reporter[] = "TimeFinder_freeze";

// Longest configuration string.
inline constexpr int32_t config_limit = 1024;

// The places that the allocation message names. They are fixed numbers of the message, known to
// those who read it, not lines of these files.
namespace freeze_line {
inline constexpr int output_name = 1333;
inline constexpr int further_device = 1397;
inline constexpr int object_record = 3163;
inline constexpr int first_device = 3169;
inline constexpr int transfer_name = 3201;
}  // namespace freeze_line

// One freeze. h belongs to this operation until *handle is handed over for good: the entry point
// discards it when one of the phases up to store_owners fails.
struct Freeze {
    const char *config;  // null when the caller gave none
    const char *source;  // never null
    const char *fifs;
    bool no_wait;  // flag 3: neither wait for the pairs nor touch the session
    hdef **handle;
    hdef *h = nullptr;
    HeapOwner<char> alternate_client{};  // keyword "alternate_backup_client"; null when not given
};

// Every phase returns 0, or 11 after a report.

// Allocates the object's record and its first device record, makes the capture files and stores the
// handle. Where the device record cannot be had, the handle still receives the bare record, which
// then lives until unload like any other.
int32_t allocate_records(Freeze &f);
// Names the transfer file, stores host and source.
int32_t describe_object(Freeze &f);
// Reads the configuration string into the record, g_plexname and alternate_client.
int32_t read_config(Freeze &f);
// Tells what kind of object the source is and finds its block and raw device.
int32_t classify_source(Freeze &f);
// Decides whether an alternate backup client will import the copy's disk group (dgimport).
int32_t decide_import(Freeze &f);
// Enters the object in its disk group; a volume's group and name come from its block device. A
// volume's device list is made anew from the clone tool's answer, or dropped when another object
// has listed the imported group before.
int32_t enter_disk_group(Freeze &f);
// Replaces multipath names by a native path that works, per device.
int32_t resolve_paths(Freeze &f);
// Stores who owns the device nodes of an object that is no volume.
int32_t store_owners(Freeze &f);
// Finds a BCV for every device and, unless no_wait, waits until every pair is synchronised. Also
// passes on other results of the steps it calls.
int32_t find_all_pairs(Freeze &f);
// Ends a freeze that waits: sets the array preference, counts the object, and ends the session when
// anything failed. pairs is the result of find_all_pairs.
int32_t finish_waiting_freeze(int32_t pairs);

// enter_disk_group's look at the clone tool: fills the device list with the devices of the disk
// group (dgimport) or of the volume alone.
int32_t vol_to_device(hdef *h);

}  // namespace tf
