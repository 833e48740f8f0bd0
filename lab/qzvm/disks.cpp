#include "lab/qzvm/disks.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

namespace qz {
namespace {

namespace fs = std::filesystem;

struct Place {
    const char *folder;
    const char *pattern;  // of the whole names of whole disks
    const char *raw;      // where the raw twins are; null: a disk is its own
};

// In the order of preference: a disk is called by its first name.
constexpr Place places[] = {
    {"/dev/qz/dmp", "+([!.])", "/dev/qz/rdmp"},  // a node that is just being made ends in ".new"
    {"/dev", "emcpower+([a-z])", nullptr},
    {"/dev", "sd+([a-z])", nullptr},
    {"/dev/rdsk", "c+([0-9])t+([0-9])d+([0-9])", nullptr},
};

std::vector<std::string> names_at(const Place &place) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(place.folder, error)) {
        const std::string name = entry.path().filename();
        if (fnmatch(place.pattern, name.c_str(), FNM_EXTMATCH) == 0) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string name_of(const std::string &path) {
    return fs::path(path).filename();
}

// The path under which the disk is known; null when it is not defined.
const std::string *known_path(const State &state, const Disk &disk) {
    const auto found =
        std::find_if(disk.paths.begin(), disk.paths.end(),
                     [&state](const std::string &path) { return state.disks.contains(path); });
    return found == disk.paths.end() ? nullptr : &*found;
}

void refuse_imported(const State &state, const Disk &disk) {
    if (const std::string group = Taken(state).by(disk); !group.empty()) {
        throw Error("disk " + disk.name + " belongs to group " + group +
                    ", which is imported here; deport that first");
    }
}

KnownDisk &defined(State *state, const Disk &disk) {
    const std::string *path = known_path(*state, disk);
    if (path == nullptr) {
        throw Error("disk " + disk.name + " is not defined; 'qzdisk define " + disk.name +
                    "' does that");
    }
    return state->disks[*path];
}

}  // namespace

void Disks::add(const std::string &path, const std::string &raw, dev_t device) {
    const auto [found, is_new] = by_device_.emplace(device, disks_.size());
    if (is_new) {
        Disk disk;
        disk.device = device;
        disk.name = name_of(path);
        disk.block = path;
        disk.raw = raw;
        disks_.push_back(std::move(disk));
    }
    disks_[found->second].paths.push_back(path);
    for (const std::string &name : {path, raw, name_of(path)}) index(name, found->second);
}

Disks Disks::scan(const State &state) {
    Disks found;
    for (const Place &place : places) {
        for (const std::string &name : names_at(place)) {
            const std::string path = std::string(place.folder) + "/" + name;
            struct stat status = {};
            if (stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) continue;
            const std::string twin =
                place.raw == nullptr ? path : std::string(place.raw) + "/" + name;
            found.add(path, fs::exists(twin) ? twin : path, status.st_rdev);
        }
    }
    for (Disk &disk : found.disks_) {
        const std::string *path = known_path(state, disk);
        if (path == nullptr) continue;
        const KnownDisk &known = state.disks.at(*path);
        disk.defined = true;
        disk.online = known.online;
        disk.order = known.order;
    }
    return found;
}

const Disk *Disks::find(const std::string &name) const {
    const auto found = by_name_.find(name);
    return found == by_name_.end() ? nullptr : &disks_[found->second];
}

const Disk &Disks::at(const std::string &name) const {
    const Disk *disk = find(name);
    if (disk == nullptr) throw Error("this host sees no disk '" + name + "'");
    return *disk;
}

Taken::Taken(const State &state) {
    for (const auto &[name, group] : state.groups) {
        for (const std::string &path : group.disks) groups_[path] = name;
    }
}

std::string Taken::by(const Disk &disk) const {
    for (const std::string &path : disk.paths) {
        const auto found = groups_.find(path);
        if (found != groups_.end()) return found->second;
    }
    return "";
}

void define_disk(const std::string &name) {
    const Exclusive only;
    State state = load_state();
    const Disk disk = Disks::scan(state).at(name);
    if (disk.defined) return;
    state.disks[disk.block] = {};
    save_state(state);
}

void undefine_disk(const std::string &name) {
    const Exclusive only;
    State state = load_state();
    const Disk disk = Disks::scan(state).at(name);
    defined(&state, disk);
    refuse_imported(state, disk);
    state.disks.erase(*known_path(state, disk));
    save_state(state);
}

void online_disk(const std::string &name) {
    const Exclusive only;
    State state = load_state();
    defined(&state, Disks::scan(state).at(name)) = {true, ++state.order};
    save_state(state);
}

void offline_disk(const std::string &name) {
    const Exclusive only;
    State state = load_state();
    const Disk disk = Disks::scan(state).at(name);
    KnownDisk &known = defined(&state, disk);
    refuse_imported(state, disk);
    known.online = false;
    save_state(state);
}

}  // namespace qz
