// What the array and the lock files say of a plan's devices, and what a freeze would make of it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "fimctl/array_reader.h"
#include "fimctl/inspect/plan.h"
#include "fimctl/paths.h"
#include "fimctl/source.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

constexpr char native_disk[] = "/dev/sd";
constexpr char multipath_disk[] = "/dev/emcpower";
constexpr char raw_multipath[] = "/dev/qz/rdmp/";
// How many devices one snapshot may have, and how much of two names the method compares.
constexpr size_t most_devices = 2046;
constexpr size_t compared_length = 8;

bool holds(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

bool can_be_opened(const std::string &path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file >= 0) close(file);
    return file >= 0;
}

std::string first_open_native(const std::vector<std::string> &ports) {
    for (const std::string &port : ports) {
        if (holds(port, native_disk) && can_be_opened(port)) return port;
    }
    return "";
}

// A multipath device is asked about under its own name and used under a path that is up.
void choose_native_path(PlannedPair &pair, Plan &plan) {
    if (!holds(pair.raw, multipath_disk)) return;
    const std::string port = first_open_native(pair.device.ports);
    const std::string &own = pair.device.path;
    if (!port.empty()) {
        pair.raw = port;
    } else if (holds(own, native_disk) && can_be_opened(own)) {
        pair.raw = own;
    } else {
        plan.problem("no path of " + pair.addressed + " is up", "bring a path up");
    }
}

// The host path of the BCV as the method finds it: the first native port that is up, else its name.
std::string path_of(const BcvView &bcv) {
    const std::string port = first_open_native(bcv.ports);
    std::string path = port.empty() ? bcv.path : port;
    const size_t disk = path.find('s');
    if (!holds(path, raw_multipath) || disk == std::string::npos) return path;
    return "/dev/" + path.substr(disk);
}

std::string named(const PlannedPair &pair) {
    return pair.device.array_name() + " (" + pair.addressed + ")";
}

void judge_state(PlannedPair &pair, const BcvView &bcv, Plan &plan) {
    const bool enrolled = pair.choice.establishes || plan.config.sync_at_start == 1;
    if (bcv.state == pair_state::synchronised) {
        pair.action = "split";
    } else if (plan.config.sync_at_start == 2) {
        pair.action = "established in full, then split";
    } else if (enrolled) {
        pair.action = "established incrementally, then split";
    } else if (bcv.state == pair_state::synchronising) {
        pair.action = "waited for until it is synchronised, then split";
    } else {
        plan.problem("BCV " + bcv.name + " of " + named(pair) + " is " +
                         name_of_pair_state(bcv.state) +
                         " and carries no label, so the freeze would not establish it",
                     "--config sync_at_start=1, or label it TSR-BCV on the array");
    }
}

// Where the device is mounted on this host, or "".
std::string mounted_at(const std::string &device) {
    struct stat status = {};
    if (device.empty() || stat(device.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return "";
    return mount_point_of(status.st_rdev);
}

// The array establishes no mirror that a host uses; other hosts cannot be looked at from here.
void judge_use(const PlannedPair &pair, const BcvView &bcv, Plan &plan) {
    const std::string directory = mounted_at(pair.bcv_path);
    if (directory.empty()) return;
    plan.problem("BCV " + bcv.name + " of " + named(pair) + " is mounted on " + directory,
                 "umount " + directory + "; the copy of a snapshot ends with its release");
}

void judge_bcv(PlannedPair &pair, Plan &plan) {
    const BcvView &bcv = *pair.bcv();
    if (bcv.primary.substr(0, compared_length) != pair.device.name.substr(0, compared_length)) {
        plan.problem(named(pair) + " is not a primary device: it is the BCV of " + bcv.primary,
                     "name the primary");
        return;
    }
    pair.bcv_path = path_of(bcv);
    judge_state(pair, bcv, plan);
    judge_use(pair, bcv, plan);
    if (!bcv.is_labelled()) {
        plan.note("BCV " + bcv.name + " of " + named(pair) + " does not carry the label TSR-BCV",
                  "label it on the array");
    }
    if (pair.bcv_path.empty()) {
        plan.note("BCV " + bcv.name + " of " + named(pair) + " is not visible on this host",
                  "mount the copy on the backup host that sees it, or mask it to this host");
    }
}

// What the freeze would split on its way may change what it then finds.
void judge_released(PlannedPair &pair, Plan &plan) {
    for (const size_t index : pair.choice.released) {
        plan.note("BCV " + pair.device.bcvs[index].name + " is synchronised with " + named(pair) +
                      " under another association: the freeze would split the two first, and the "
                      "pairs' states after that cannot be known",
                  "look at the device groups on the array");
    }
}

void judge_pair(PlannedPair &pair, Plan &plan) {
    if (!pair.device.trouble.empty()) {
        plan.problem("the array does not know " + pair.addressed + ": " + pair.device.trouble,
                     "see that it is a device of the array and masked to this host");
        return;
    }
    choose_native_path(pair, plan);
    pair.choice = choose_bcv(pair.device);
    judge_released(pair, plan);
    if (!pair.choice.trouble.empty()) {
        plan.problem("the BCVs of " + named(pair) + " cannot be read: " + pair.choice.trouble,
                     "look at the array");
    } else if (pair.bcv() == nullptr) {
        plan.problem(named(pair) + " is not a member of a BCV pair",
                     "associate a BCV with it, in its device group, on the array");
    } else {
        judge_bcv(pair, plan);
    }
}

template <typename Work>
void each_pair(Plan &plan, Work work) {
    for (PlannedObject &object : plan.objects) {
        for (PlannedPair &pair : object.pairs) work(pair);
    }
}

std::vector<DeviceView> read_devices(const std::vector<std::string> &paths) {
    return read_elsewhere(Step::array, [&paths] {
        ArraySession session;
        session.open();
        std::vector<DeviceView> devices;
        for (const std::string &path : paths) devices.push_back(view_of(session, path));
        return Message(devices);
    });
}

// The serial number in the answer of the device tool: the value of "s=" in its lines about arrays.
std::string serial_in(const std::string &answer) {
    std::istringstream lines(answer);
    std::string serial;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#' || !holds(line, "EMC")) continue;
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            if (word.compare(0, 2, "s=") == 0) serial = word.substr(2);
        }
    }
    return serial;
}

void find_lock(PlannedPair &pair, Plan &plan) {
    const ToolResult said =
        run_tool({path::device_information_tool, "-f", "-p", pair.raw, "-o", "-"});
    const std::string serial = said.good() ? serial_in(said.out) : "";
    if (serial.size() < 2 || holds(serial, "/")) {
        pair.lock_trouble = said.good() ? "it names no serial number" : said.reason();
        plan.problem(std::string(path::device_information_tool) + " does not know " + pair.raw +
                         ", so its array's lock cannot be taken: " + pair.lock_trouble,
                     "fimctl doctor");
        return;
    }
    pair.lock = read_counter_file(counter_file_of(serial));
    if (pair.lock.owner == Owner::alive || pair.lock.owner == Owner::replaced) {
        plan.problem("the array of " + named(pair) + " is owned by process " +
                         std::to_string(pair.lock.pid) +
                         (pair.lock.owner == Owner::alive ? " (" + pair.lock.process.command + ")"
                                                          : " that is no more"),
                     pair.lock.advice());
    }
}

}  // namespace

void find_pairs(Plan &plan) {
    std::vector<std::string> paths;
    each_pair(plan, [&paths](PlannedPair &pair) {
        pair.addressed = pair.raw;
        paths.push_back(pair.addressed);
    });
    if (paths.size() > most_devices) {
        plan.problem(std::to_string(paths.size()) + " devices are too many for one snapshot",
                     "take the paths in two snapshots");
    }
    if (paths.empty()) return;
    if (access(path::array_database, F_OK) != 0) {
        plan.array_known = false;
        plan.note(no_database_yet, "the first snapshot makes it");
        return;
    }
    std::vector<DeviceView> devices;
    try {
        devices = read_devices(paths);
    } catch (const Failure &failure) {
        plan.array_known = false;
        plan.array_failed = true;
        plan.problem(failure.what(), remedy_of(failure.step, failure.code, 0));
        return;
    }
    size_t next = 0;
    each_pair(plan, [&](PlannedPair &pair) {
        pair.device = devices[next++];
        judge_pair(pair, plan);
    });
}

// The device tool asks the array as well, and would make a database that is not there.
void find_locks(Plan &plan) {
    if (!plan.array_known) return;
    each_pair(plan, [&plan](PlannedPair &pair) {
        if (pair.device.trouble.empty()) find_lock(pair, plan);
    });
}

}  // namespace fimctl
