// What lies about on the host and belongs to no snapshot that is still to be ended.
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>

#include "fimctl/command.h"
#include "fimctl/disk_group.h"
#include "fimctl/inspect/orphans.h"
#include "fimctl/paths.h"
#include "fimctl/snapshot_lock.h"
#include "fimctl/source.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

constexpr char clone_suffix[] = "_clone";

std::string real_path(const std::string &folder) {
    char real[PATH_MAX] = "";
    return realpath(folder.c_str(), real) == nullptr ? folder : real;
}

time_t modified(const std::string &path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

std::vector<std::string> entries_of(const std::string &folder) {
    std::vector<std::string> entries;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        entries.push_back(entry->path());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::vector<std::string> imported_copies() {
    std::vector<std::string> groups;
    if (!can_be_run(path::disk_group_tool)) return groups;
    std::istringstream lines(run_tool({path::disk_group_tool, "list"}).out);
    for (std::string line; std::getline(lines, line);) {
        std::string name, state;
        std::istringstream(line) >> name >> state;
        if (state == "imported" && name.ends_with(clone_suffix)) groups.push_back(name);
    }
    return groups;
}

// HOST-ID-N, as fimctl calls the folders that it makes.
bool has_name_of_own(const std::string &folder) {
    std::string name = fs::path(folder).filename();
    for (int part = 0; part < 2; ++part) {
        const size_t dash = name.rfind('-');
        if (dash == std::string::npos || dash == 0 || dash + 1 == name.size()) return false;
        if (name.find_first_not_of("0123456789", dash + 1) != std::string::npos) return false;
        name.resize(dash);
    }
    return true;
}

// Whether a folder lies where fimctl makes its own, and not in somebody's file system that is
// mounted there: what is empty in a copy is a part of the copy.
bool is_beside_the_catalogue(const std::string &folder, const std::string &state) {
    struct stat own = {}, other = {};
    if (stat(state.c_str(), &own) != 0 || lstat(folder.c_str(), &other) != 0) return false;
    if (!S_ISDIR(other.st_mode) || own.st_dev != other.st_dev) return false;
    return !is_mount_point(folder) && !is_mount_point(fs::path(folder).parent_path());
}

// Tells the remains of snapshots that are not over, or that somebody works on, from the others.
class Strays {
  public:
    Strays(const Settings &settings, const std::vector<SnapshotRecord> &snapshots,
           std::vector<Orphan> &orphans)
        : state_(settings.state), orphans_(orphans) {
        for (const SnapshotRecord &snapshot : snapshots) {
            for (const ObjectRecord &object : snapshot.objects) {
                if (object.made_fifs == 0) foreign_.insert(object.fifs);
            }
            const bool is_worked_on =
                SnapshotLock::state_of(settings.state, snapshot.id) == LockState::held;
            if (is_over(snapshot.state) && !is_worked_on) continue;
            unfinished_.insert(std::to_string(snapshot.id));
            for (const ObjectRecord &object : snapshot.objects) keep(snapshot, object);
            for (const std::string &symid : snapshot.arrays()) arrays_.insert(symid);
        }
    }

    void judge(const Remains &remains) {
        for (const std::string &directory : remains.mounts) judge_mount(directory);
        for (const std::string &folder : remains.folders) judge_folder(folder, remains.mounts);
        for (const std::string &folder : remains.scratch) {
            if (unfinished_.count(fs::path(folder).filename()) != 0) continue;
            add(OrphanKind::scratch, folder, "of no snapshot that is not over");
        }
        for (const std::string &file : remains.locks) judge_lock(file);
        for (const CounterFile &counter : remains.counters) judge_counter(counter);
        for (const std::string &group : remains.groups) judge_group(group);
    }

  private:
    void keep(const SnapshotRecord &snapshot, const ObjectRecord &object) {
        places_.insert(object.fifs);
        if (!object.is_volume()) return;
        groups_.insert(clone_name(object.vol_group));
        groups_.insert(clone_name(primary_host_of(snapshot), object.vol_group));
    }

    Orphan &add(OrphanKind kind, const std::string &path, const std::string &what) {
        Orphan orphan(kind);
        orphan.name = orphan.path = path;
        orphan.since = modified(path);
        orphan.what = what;
        orphan.command = "fimctl cleanup";
        orphans_.push_back(std::move(orphan));
        return orphans_.back();
    }

    // What somebody mounted inside of a copy belongs to whoever looks after the copy.
    void judge_mount(const std::string &directory) {
        for (const std::string &place : places_) {
            if (directory == place || directory.rfind(place + "/", 0) == 0) return;
        }
        add(OrphanKind::mount, directory, "a copy that belongs to no snapshot");
    }

    // A place on which something is mounted goes with its mount.
    void judge_folder(const std::string &folder, const std::vector<std::string> &mounts) {
        if (places_.count(folder) != 0 || foreign_.count(folder) != 0) return;
        if (std::find(mounts.begin(), mounts.end(), folder) != mounts.end()) return;
        if (!is_folder_of_own(folder, state_)) return;
        add(OrphanKind::folder, folder, "a place for a copy, of no snapshot");
    }

    // One that was killed before its snapshot was entered for good has left the catalogue as it
    // was.
    void judge_lock(const std::string &file) {
        const std::string number = fs::path(file).filename();
        if (number.find_first_not_of("0123456789") != std::string::npos) return;
        if (unfinished_.count(number) != 0) return;
        const int64_t id = strtoll(number.c_str(), nullptr, 10);
        if (SnapshotLock::state_of(state_, id) != LockState::left) return;
        add(OrphanKind::lock, file, "its fimctl was killed").id = id;
    }

    // Between two phases of a snapshot the counter file of its array has an owner that is gone:
    // that is the rule, and the next phase takes it over.
    void judge_counter(const CounterFile &counter) {
        if (counter.owner != Owner::gone && counter.owner != Owner::replaced) return;
        const bool is_expected =
            std::any_of(arrays_.begin(), arrays_.end(), [&counter](const std::string &symid) {
                return counter.group.compare(0, symid.size(), symid) == 0;
            });
        if (is_expected && counter.owner == Owner::gone) return;
        Orphan &orphan = add(OrphanKind::counter, counter.path,
                             "process " + std::to_string(counter.pid) + " that owned it is gone");
        orphan.name = counter.group;
        orphan.since = counter.written;
        if (counter.owner == Owner::gone) return;
        orphan.what += ", and another one has its number";
        orphan.command = "rm " + shell_word(counter.path);
        orphan.is_kept = true;
    }

    void judge_group(const std::string &group) {
        if (groups_.count(group) != 0) return;
        Orphan &orphan = add(OrphanKind::group, "", "imported here, and no snapshot names it");
        orphan.name = group;
        orphan.command = std::string(path::disk_group_tool) + " deport " + shell_word(group);
        orphan.is_kept = true;
    }

    const std::string state_;
    std::vector<Orphan> &orphans_;
    std::set<std::string> unfinished_, places_, arrays_, groups_;
    std::set<std::string> foreign_;  // places that were there before their snapshot
};

}  // namespace

bool is_folder_of_own(const std::string &folder, const std::string &state) {
    return has_name_of_own(folder) && is_beside_the_catalogue(folder, state);
}

Remains look_for_remains(const Settings &settings) {
    Remains remains;
    const std::string folder = real_path(settings.state + "/" + path::mount_folder);
    remains.mounts = mount_points_below(folder);
    std::erase(remains.mounts, folder);
    // What was mounted last has to go first.
    std::reverse(remains.mounts.begin(), remains.mounts.end());
    remains.folders = entries_of(folder);
    remains.scratch = entries_of(settings.state + "/" + path::scratch_folder);
    if (Catalogue::exists(settings.state))
        remains.locks = entries_of(lock_folder_of(settings.state));
    remains.counters = read_counter_files();
    remains.groups = imported_copies();
    return remains;
}

void find_strays(const Settings &settings, const Remains &remains,
                 const std::vector<SnapshotRecord> &snapshots, std::vector<Orphan> &orphans) {
    Strays(settings, snapshots, orphans).judge(remains);
}

}  // namespace fimctl
