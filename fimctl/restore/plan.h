// What a restore would do, before it does it: which mirror over which primary, what is taken away
// and brought back, and what stands against it.
//
// A restore through the method with disk-group import overwrites the disks of whole groups. So the
// plan is about groups first, and names also what the user did not.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fimctl/catalogue.h"
#include "fimctl/restore/host_view.h"

namespace fimctl {

struct RestoreObject {
    size_t number = 0;  // in the snapshot
    std::string source;
    int type = 0;  // of the record: file_system_object or one of the devices
    std::string group, volume, block, fstype;
    // Of a file system:
    std::string directory;  // where it is mounted, or will be
    bool mounted = false;   // now; of an interrupted restore: before it began
    bool mounted_now = false;
    std::string options;  // of that mount
    bool is_file_system() const;
};
constexpr int file_system_object = 3;

struct RestorePair {
    Pair pair;
    long state = state_unknown;       // now
    std::string group;                // of the primary's volumes
    std::string primary, mirror;      // names on this host; mirror "" when it is not seen
    std::optional<uint64_t> size;     // of the primary
    std::optional<uint64_t> differs;  // measured, in bytes

    // Restored by this snapshot's restore already, or just being: nothing of it is begun again.
    bool is_restored() const;
};

struct RestoreGroup {
    std::string name;
    std::string clone;                    // what its copy is called on the backup host
    bool imported = false;                // now
    std::vector<std::string> bystanders;  // volumes of the group that are no objects
};

// One reason why nothing is done, and what to do about it.
struct Obstacle {
    std::string what, next;
};

struct RestorePlan {
    int64_t id = 0;
    std::string uuid, created;
    bool quiesced = false;
    double frozen_ms = 0;
    bool resumed = false;  // goes on with a restore that was begun
    bool measured = false;
    std::vector<RestoreObject> objects;  // in the order in which they are ended
    std::vector<size_t> rebuild_order;   // indices into objects
    std::vector<RestoreGroup> groups;
    std::vector<RestorePair> pairs;
    std::vector<Obstacle> obstacles;
    std::string code;  // of everything above that matters
};

struct PlanOptions {
    bool abandoned = false;  // the copy's other users are given up
    bool measure = false;
};

// The disks of the primaries, as far as this host sees them.
std::set<dev_t> disks_of(const RestorePlan &plan);

// Looks at the catalogue, the array and this host. Throws Failure where no plan can be made: the
// snapshot has no copy to restore from, or the array does not answer.
RestorePlan make_plan(const SnapshotRecord &snapshot, const PlanOptions &options);

// For people, and as one JSON document.
std::string plan_text(const RestorePlan &plan);
std::string plan_json(const RestorePlan &plan);
// The short code that stands for a plan: equal for plans that do the same to the same things,
// whenever they were made.
std::string code_of(const RestorePlan &plan);
// A code as somebody typed it.
bool is_code_of(const RestorePlan &plan, const std::string &typed);

// What a restore that was begun has to know to be ended: where file systems were mounted, and how.
std::string kept_form(const RestorePlan &plan);
// Puts it into the objects of a plan.
void apply_kept_form(RestorePlan &plan, const std::string &form);

}  // namespace fimctl
