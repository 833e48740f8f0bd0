#include "lab/qzvm/disks.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>

namespace qz {
namespace {

namespace fs = std::filesystem;

struct Place {
    const char *folder;   // below /dev, "" is /dev itself
    const char *pattern;  // of the whole names of whole disks
    const char *raw;      // where the raw twins are; null: a disk is its own
};

// In the order of preference: a disk is called by its first name.
constexpr Place places[] = {
    {"/dev/qz/dmp", "[^.]+", "/dev/qz/rdmp"},  // a node that is just being made ends in ".new"
    {"/dev", "emcpower[a-z]+", nullptr},
    {"/dev", "sd[a-z]+", nullptr},
    {"/dev/rdsk", "c[0-9]+t[0-9]+d[0-9]+", nullptr},
};

std::vector<std::string> names_at(const Place &place) {
    const std::regex pattern(place.pattern);
    std::vector<std::string> names;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(place.folder, error)) {
        const std::string name = entry.path().filename();
        if (std::regex_match(name, pattern)) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string name_of(const std::string &path) {
    return fs::path(path).filename();
}

bool is_called(const Disk &disk, const std::string &name) {
    return disk.raw == name ||
           std::any_of(disk.paths.begin(), disk.paths.end(), [&name](const std::string &path) {
               return path == name || name_of(path) == name;
           });
}

// The path under which the disk is known; null when it is not defined.
const std::string *known_path(const State &state, const Disk &disk) {
    const auto found =
        std::find_if(disk.paths.begin(), disk.paths.end(),
                     [&state](const std::string &path) { return state.disks.contains(path); });
    return found == disk.paths.end() ? nullptr : &*found;
}

void refuse_imported(const State &state, const Disk &disk) {
    for (const auto &[name, group] : state.groups) {
        for (const std::string &path : group.disks) {
            if (is_called(disk, path)) {
                throw Error("disk " + disk.name + " belongs to group " + name +
                            ", which is imported here; deport that first");
            }
        }
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

Disks Disks::scan(const State &state) {
    Disks found;
    for (const Place &place : places) {
        for (const std::string &name : names_at(place)) {
            const std::string path = std::string(place.folder) + "/" + name;
            struct stat status = {};
            if (stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) continue;
            const auto same =
                std::find_if(found.disks_.begin(), found.disks_.end(),
                             [&status](const Disk &disk) { return disk.device == status.st_rdev; });
            if (same != found.disks_.end()) {
                same->paths.push_back(path);
                continue;
            }
            Disk disk;
            disk.device = status.st_rdev;
            disk.name = name;
            disk.block = disk.raw = path;
            disk.paths = {path};
            if (place.raw != nullptr) {
                const std::string raw = std::string(place.raw) + "/" + name;
                if (fs::exists(raw)) disk.raw = raw;
            }
            found.disks_.push_back(std::move(disk));
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
    const auto found = std::find_if(disks_.begin(), disks_.end(),
                                    [&name](const Disk &disk) { return is_called(disk, name); });
    return name.empty() || found == disks_.end() ? nullptr : &*found;
}

const Disk &Disks::at(const std::string &name) const {
    const Disk *disk = find(name);
    if (disk == nullptr) throw Error("this host sees no disk '" + name + "'");
    return *disk;
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
