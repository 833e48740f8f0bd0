// What a freeze of some paths would do, found out without doing any of it.
//
// No entry point of the method is a dry run, so the plan applies the method's rules to what the
// host and the array show. What they do not show is said not to be known.
#pragma once

#include <string>
#include <vector>

#include "fimctl/cycle.h"
#include "fimctl/inspect/array_view.h"
#include "fimctl/inspect/lock_files.h"
#include "fimctl/inspect/method_config.h"
#include "fimctl/source.h"

namespace fimctl {

// One device of an object, and the mirror that its copy would be made on.
struct PlannedPair {
    std::string raw;        // the device, as the host knows it
    std::string addressed;  // as the array is asked about it
    DeviceView device;
    BcvChoice choice;
    std::string bcv_path;  // on this host, "" when it is not visible here
    std::string action;    // what the freeze would do with the pair; "" when that is not known
    std::string lock_trouble;
    CounterFile lock;

    const BcvView *bcv() const;
};

constexpr int covered_by_none = -1;

struct PlannedObject {
    Source source;
    std::string block, raw, type;  // of what is frozen; type of a file system only
    std::string group, volume;     // of a volume
    // The object that brings this one's devices along: an imported group comes as a whole.
    int covered_by = covered_by_none;
    std::vector<PlannedPair> pairs;

    bool is_file_system() const { return source.kind == SourceKind::file_system; }
    bool is_volume() const { return !group.empty(); }
};

struct Problem {
    bool prevents;  // the freeze would fail; else something that an operator should know
    std::string text, remedy;
};

struct Plan {
    MethodConfig config;
    bool import = false;
    std::string import_reason;
    bool array_known = true;    // whether the array could be asked
    bool array_failed = false;  // it was, and did not answer
    std::vector<PlannedObject> objects;
    std::vector<std::string> quiesced;
    std::vector<std::string> freeze_commands, mount_commands, release_commands;
    std::vector<Problem> problems;

    void problem(const std::string &text, const std::string &remedy) {
        problems.push_back({true, text, remedy});
    }
    void note(const std::string &text, const std::string &remedy) {
        problems.push_back({false, text, remedy});
    }
    bool is_prevented() const;
};

// Throws Failure (usage) for paths that are none.
Plan make_plan(const Settings &settings, const std::vector<std::string> &paths);

std::string plan_report(const Plan &plan, bool json);

// Its parts, in their order.
void find_devices(const Settings &settings, Plan &plan);   // objects, import, devices below them
void find_pairs(Plan &plan);                               // what the array says of the devices
void find_locks(Plan &plan);                               // who owns their arrays
void find_commands(const Settings &settings, Plan &plan);  // what would be run on this host

}  // namespace fimctl
