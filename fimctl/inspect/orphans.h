// Everything that was begun on this host and has not ended, and that nobody works on: by the
// catalogue, by the files that a killed process leaves, and by what is mounted or imported.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "fimctl/catalogue.h"
#include "fimctl/cycle.h"
#include "fimctl/inspect/lock_files.h"

namespace fimctl {

enum class OrphanKind {
    frozen,    // a file system whose guardian was killed: its writers hang
    snapshot,  // of the catalogue, not over
    mount,     // below the folder of the copies, of no snapshot
    folder,    // there as well, empty
    scratch,   // temporary files of no phase
    lock,      // the lock file of a fimctl that was killed, of no snapshot that is not over
    counter,   // an array's counter file whose owner is gone
    group      // a copy's disk group that is imported here and that no snapshot names
};

struct Orphan {
    explicit Orphan(OrphanKind what_kind) : kind(what_kind) {}

    OrphanKind kind;
    std::string name;         // as a person would call it
    std::string path;         // of a file or directory
    int64_t id = 0;           // the snapshot that it is or belongs to; 0 for none
    time_t since = 0;         // 0 when that is not known
    std::string what;         // what is the matter
    std::string command;      // what ends it
    bool is_waiting = false;  // nothing went wrong: it waits for its next command
    // cleanup must leave it to the operator; command says what he does.
    bool is_kept = false;
};

const char *name_of(OrphanKind kind);

// In the order in which they are to be ended. Throws Failure when the catalogue cannot be read.
std::vector<Orphan> find_orphans(const Settings &settings);

std::string orphan_report(const std::vector<Orphan> &orphans, bool json);

// What lies about, whoever it belongs to. It is looked at before the catalogue is, so that a
// snapshot that begins meanwhile is known by the time its remains are judged.
struct Remains {
    std::vector<std::string> mounts;   // below the folder of the copies, the deepest first
    std::vector<std::string> folders;  // in it
    std::vector<std::string> scratch;
    std::vector<std::string> locks;
    std::vector<CounterFile> counters;
    std::vector<std::string> groups;  // imported here, with the names of copies
};
// Whether fimctl, and nobody else, has made this folder for a copy: by its name, and by where it
// lies.
bool is_folder_of_own(const std::string &folder, const std::string &state);
Remains look_for_remains(const Settings &settings);
void find_strays(const Settings &settings, const Remains &remains,
                 const std::vector<SnapshotRecord> &snapshots, std::vector<Orphan> &orphans);

}  // namespace fimctl
