#include "fimctl/restore/obstacles.h"

#include <sys/stat.h>

#include <map>
#include <set>

#include "fimctl/array_reader.h"
#include "fimctl/paths.h"
#include "fimctl/restore/bring_back.h"
#include "fimctl/restore/texts.h"
#include "fimctl/restore/tools.h"
#include "fimctl/source.h"

namespace fimctl {
namespace {

constexpr size_t longest_directory = 1023;

Failure unfit(const SnapshotRecord &snapshot, const std::string &why, const std::string &next) {
    Failure failure(Step::snapshot, ExitCode::usage,
                    "snapshot " + std::to_string(snapshot.id) + " cannot be restored from: " + why);
    failure.next = next;
    return failure;
}

bool has_every_text(const SnapshotRecord &snapshot) {
    for (const ObjectRecord &object : snapshot.objects) {
        if (object.text.empty()) return false;
    }
    return !snapshot.objects.empty();
}

// Of the files of a snapshot that only its mirror is left of.
std::string way_without_restore(const SnapshotRecord &snapshot) {
    const std::string id = std::to_string(snapshot.id);
    const std::string way = snapshot.state == State::mounted ? "fimctl show " + id + " tells where"
                            : snapshot.is_away()             ? "on the backup host that has it"
                                                             : "fimctl mount " + id;
    return "copy what is needed out of the mounted copy (" + way +
           "); for a later restore take the snapshot of a volume with import: --config "
           "alternate_backup_client=HOST and the configuration entry dgimport";
}

// Looks for everything that is against a plan and collects it.
class Search {
  public:
    Search(RestorePlan &plan, const SnapshotRecord &snapshot, const std::vector<MountLine> &mounts)
        : plan_(plan), snapshot_(snapshot), mounts_(mounts) {}

    void look_at_copy(bool abandoned) {
        const std::string id = std::to_string(plan_.id);
        // Asked once: what was begun without its return cannot wait for that any more.
        if (!abandoned && !plan_.resumed && snapshot_.is_away()) {
            add("it was exported at " + snapshot_.exported +
                    " and is not back: the backup host may be reading the copy",
                "release it on the backup host, then: fimctl export there, fimctl import here; or, "
                "if nobody reads it any more: fimctl restore " +
                    id + " --abandoned");
        }
        for (const ObjectRecord &object : snapshot_.objects) look_at_mounted_copy(object);
    }

    void look_at_pairs() {
        std::map<std::string, std::string> array_of;
        for (const RestorePair &pair : plan_.pairs) {
            const bool good =
                pair.state == pair_state::split || (plan_.resumed && pair.is_restored());
            if (!good) {
                add(name_of(pair) + " is " + name_of_pair_state(pair.state) +
                        ", not split: the method would pass it over and restore nothing",
                    remedy_of(pair));
            }
            const auto [at, is_new] = array_of.emplace(pair.pair.device, pair.pair.symid);
            if (!is_new && at->second != pair.pair.symid) {
                add("device " + pair.pair.device +
                        " is a name on two arrays, and the method would restore only one of them",
                    "restore by hand on the arrays");
            }
        }
        for (const ObjectRecord &object : snapshot_.objects) {
            for (const PairLines &lines : pair_lines(object.text)) {
                if (lines.wanted) continue;
                add("pair " + lines.pair.device + "/" + lines.pair.bcv +
                        " was not split by this snapshot",
                    "fimctl release " + std::to_string(plan_.id));
            }
        }
    }

    void look_at_groups() {
        for (const RestoreGroup &group : plan_.groups) {
            if (!group.imported && !plan_.resumed) {
                add("disk group " + group.name + " is not imported here",
                    std::string(path::disk_group_tool) + " import " + group.name + " && " +
                        path::volume_tool + " -g " + group.name + " startall");
            }
            const std::string foreign = group.imported ? foreign_disk(plan_, group.name) : "";
            if (!foreign.empty() && !plan_.resumed) {
                add("disk group " + group.name + " is imported, but not from its primary disk " +
                        foreign,
                    "see with qzdisk list which disks it lies on, and import it from the "
                    "primaries");
            }
            for (const std::string &volume : group.bystanders) {
                look_at_bystander(group.name, volume);
            }
        }
    }

    void look_at_objects() {
        for (const RestoreObject &object : plan_.objects) {
            if (object.is_file_system()) {
                look_at_directory(object);
            } else {
                look_at_device(object);
            }
        }
    }

    // In one walk over the processes.
    void look_at_users() {
        asked_.disks = disks_of(plan_);
        for (const auto &[device, users] : users_of(asked_)) {
            add(what_[device] + " is in use by " + names_of(users),
                "end what uses it, or let it go elsewhere, then try again");
        }
    }

  private:
    void add(const std::string &what, const std::string &next) {
        plan_.obstacles.push_back({what, next});
    }

    void not_open(dev_t device, const std::string &what) {
        asked_.devices.insert(device);
        what_.emplace(device, what);
    }

    static std::string name_of(const RestorePair &pair) {
        return "pair " + pair.pair.device + "/" + pair.pair.bcv + " of array " + pair.pair.symid;
    }

    std::string remedy_of(const RestorePair &pair) const {
        const std::string id = std::to_string(plan_.id);
        if (pair.state == pair_state::splitting) return "wait until the split has ended";
        if (pair.state == pair_state::synchronised || pair.state == pair_state::synchronising) {
            return "its copy is gone, since the mirror follows the primary again; end the "
                   "snapshot: "
                   "fimctl release " +
                   id;
        }
        return "look at the pair on the array";
    }

    // The state says that the copy was brought up; the host says whether it still is. Its release
    // would lose the copy, so it is taken down by hand.
    void look_at_mounted_copy(const ObjectRecord &object) {
        const std::string again = "fimctl restore " + std::to_string(plan_.id);
        const bool mounted = is_mount_point(object.fifs);
        // A mount that was killed may have brought it up without leaving a text.
        const CheckpointText text(object.mounted_text.empty() ? as_if_mounted(object.text)
                                                              : object.mounted_text);
        const std::string clone = text.value("HDEF-clone_group");
        const bool imported = !clone.empty() && is_imported(clone);
        if (!mounted && !imported) return;
        const std::string deport = std::string(path::disk_group_tool) + " -n " +
                                   shell_word(text.value("HDEF-vol_group")) + " deport " +
                                   shell_word(clone);
        add(mounted ? "its copy is mounted on " + object.fifs
                    : "its copy's disk group " + clone + " is imported here",
            (mounted ? "umount " + shell_word(object.fifs) + "; " : "") +
                (imported ? deport + "; " : "") + again);
    }

    // Its data are in the group, so they are overwritten, and the group cannot be deported under
    // it.
    void look_at_bystander(const std::string &group, const std::string &volume) {
        const std::string block = path::volume_folder + group + "/" + volume;
        const auto device = block_number(block);
        if (!device) return;
        for (const MountLine &mount : mounts_) {
            if (mount.device != *device) continue;
            add("volume " + volume + " of disk group " + group +
                    " is no object of the snapshot and would be overwritten, too; it is mounted "
                    "on " +
                    mount.directory,
                "umount " + shell_word(mount.directory));
            return;
        }
        not_open(*device, "volume " + volume + " of disk group " + group);
    }

    void look_at_directory(const RestoreObject &object) {
        const std::string &directory = object.directory;
        if (directory.empty()) {
            add("it cannot be told where the file system of " + object.source + " belongs",
                "mount " + object.block + " where it belongs");
            return;
        }
        if (directory.size() > longest_directory || directory.find('\n') != std::string::npos) {
            add(directory + " cannot be put into the method's record", "mount it elsewhere");
        }
        const auto device = block_number(object.block);
        if (device) {
            asked_.file_systems.insert(*device);
            what_.emplace(*device, directory);
        }
        bool is_mounted = false;
        for (const MountLine &mount : mounts_) {
            const bool own = device && mount.device == *device;
            if (own && mount.directory == directory && mount.root == "/" && !is_mounted) {
                is_mounted = true;
            } else if (own) {
                add(object.block + " is mounted on " + mount.directory + " as well as on " +
                        directory,
                    "umount " + shell_word(mount.directory));
            } else if (mount.directory == directory) {
                add("something else is mounted on " + directory, "umount " + shell_word(directory));
            } else if (is_mounted_on_it(mount, object)) {
                add(mount.directory + " is mounted on top of " + directory,
                    "umount " + shell_word(mount.directory));
            }
        }
        look_at_missing(object);
    }

    // Behind its own line in the table: what was mounted before lies under it, not on it.
    bool is_mounted_on_it(const MountLine &mount, const RestoreObject &object) const {
        if (!object.mounted || !lies_below(mount.directory, object.directory)) return false;
        for (const RestoreObject &other : plan_.objects) {
            if (other.is_file_system() && other.directory == mount.directory) return false;
        }
        return true;
    }

    // One that lies on another file system of the plan is seen only once that one is mounted.
    void look_at_missing(const RestoreObject &object) {
        for (const RestoreObject &other : plan_.objects) {
            if (&other != &object && other.is_file_system() && !other.directory.empty() &&
                lies_below(object.directory, other.directory)) {
                return;
            }
        }
        struct stat status = {};
        if (stat(object.directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return;
        add("there is no directory " + object.directory + " to mount " + object.block + " on",
            "mkdir -p " + shell_word(object.directory));
    }

    void look_at_device(const RestoreObject &object) {
        const auto device = block_number(object.block);
        if (!device) return;
        for (const MountLine &mount : mounts_) {
            if (mount.device != *device) continue;
            add(object.source + " was frozen as a device, and is mounted on " + mount.directory,
                "umount " + shell_word(mount.directory));
            return;
        }
        not_open(*device, object.source);
    }

    RestorePlan &plan_;
    const SnapshotRecord &snapshot_;
    const std::vector<MountLine> &mounts_;
    Busy asked_;
    std::map<dev_t, std::string> what_;  // the names of what is asked about
};

}  // namespace

void refuse_unfit(const SnapshotRecord &snapshot) {
    const std::string id = std::to_string(snapshot.id);
    if (is_over(snapshot.state)) {
        throw unfit(snapshot, std::string("it is over: it is ") + name_of(snapshot.state),
                    "fimctl list shows the snapshots that are not over");
    }
    if (snapshot.state == State::releasing) {
        throw unfit(snapshot, "its release has begun", "fimctl release " + id);
    }
    if (snapshot.state == State::begun || snapshot.state == State::cutting ||
        !has_every_text(snapshot)) {
        throw unfit(snapshot, "it has no complete copy", "fimctl release " + id);
    }
    if (!snapshot.void_reason.empty()) {
        throw unfit(snapshot, "its copy is void: " + snapshot.void_reason, "fimctl release " + id);
    }
    for (const ObjectRecord &object : snapshot.objects) {
        const CheckpointText text(object.text);
        if (snapshot.is_target || text.is_target()) {
            throw unfit(snapshot, "it belongs to the primary host " + snapshot.origin,
                        "send it back (fimctl export), and restore it there");
        }
        if (text.is_imported_group()) continue;
        throw unfit(snapshot, object.source + " was not taken with disk-group import",
                    way_without_restore(snapshot));
    }
}

void find_obstacles(RestorePlan &plan, const SnapshotRecord &snapshot,
                    const std::vector<MountLine> &mounts, bool abandoned) {
    Search search(plan, snapshot, mounts);
    search.look_at_copy(abandoned);
    search.look_at_pairs();
    search.look_at_groups();
    search.look_at_objects();
    search.look_at_users();
}

}  // namespace fimctl
