// What is looked at and made before the array is touched.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "fimctl/array_reader.h"
#include "fimctl/copy_folder.h"
#include "fimctl/cycle.h"
#include "fimctl/disk_group.h"
#include "fimctl/held_devices.h"
#include "fimctl/hooks.h"
#include "fimctl/host.h"
#include "fimctl/inspect/method_config.h"
#include "fimctl/log.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

constexpr size_t longest_fifs = 1023;

Failure unusable(const std::string &text) {
    return Failure(Step::check, ExitCode::usage, text);
}

// A release of what somebody works on would be refused.
std::string way_past(const std::string &state, int64_t id) {
    const std::string number = std::to_string(id);
    if (SnapshotLock::state_of(state, id) != LockState::held) {
        return "end that one first: fimctl release " + number;
    }
    const pid_t holder = SnapshotLock::holder_of(state, id);
    return "wait: another fimctl" +
           (holder > 0 ? " (process " + std::to_string(holder) + ")" : std::string()) +
           " works on snapshot " + number;
}

// A second freeze of an object establishes its mirror again, under the copy that is in use. What
// was carried here from another host stands for devices of that host.
void refuse_held(const std::string &state, const std::vector<Source> &sources,
                 const std::vector<SnapshotRecord> &others) {
    for (const SnapshotRecord &snapshot : others) {
        if (is_over(snapshot.state) || snapshot.is_target) continue;
        for (const ObjectRecord &object : snapshot.objects) {
            for (const Source &source : sources) {
                if (object.device != static_cast<int64_t>(source.device)) continue;
                Failure failure =
                    unusable(source.path + " is held by snapshot " + std::to_string(snapshot.id) +
                             " (" + name_of(snapshot.state) + ")");
                failure.next = way_past(state, snapshot.id);
                throw failure;
            }
        }
    }
}

// What lies in memory, on a network or on top of other file systems has no mirror on any array, and
// the method's answer would speak of a volume. A plan tells the same as one of its problems.
void refuse_without_device(const std::vector<Source> &sources) {
    for (const Source &source : sources) {
        if (source.kind != SourceKind::file_system || source.mounted.front() == '/') continue;
        Failure failure = unusable(source.path + " lies on no device (" + source.mounted + ")");
        failure.next = "name a path on a disk of the array";
        throw failure;
    }
}

// The name under which the mount table will show the copy: the method compares it to the letter.
std::string real_name(const std::string &folder) {
    char real[PATH_MAX] = "";
    if (realpath(folder.c_str(), real) == nullptr) throw unusable(folder + ": " + strerror(errno));
    return real;
}

}  // namespace

std::vector<WrittenPlace> written_places(const Settings &settings) {
    const char *temporary = getenv("TMPDIR");
    std::vector<WrittenPlace> places = {
        {"the catalogue", settings.state},
        {"the folder of temporary files", temporary != nullptr ? temporary : P_tmpdir},
        {"the array's database", path::array_state},
        {"the method's lock folder", path::host_lock_folder},
        {"the method's counter folder", path::counter_folder}};
    if (!settings.log_file.empty()) places.push_back({"the log file", settings.log_file});
    return places;
}

std::vector<Source> Cycle::check(const std::vector<std::string> &paths) {
    auto sources = look_at_sources(paths);
    if (settings_.state.find('\n') != std::string::npos) {
        throw unusable("--state: a newline in the path");
    }
    refuse_without_device(sources);
    refuse_mount_at(settings_, sources);
    refuse_bad_hooks(settings_);
    if (settings_.quiesce) refuse_writing_to_frozen(sources, written_places(settings_));
    if (access(settings_.method.c_str(), R_OK) != 0) {
        throw Failure(Step::load, ExitCode::failed,
                      "cannot load the method: " + settings_.method + ": " + strerror(errno));
    }
    probe_array();
    for (const std::string &keyword : parse_method_config(settings_.config).unknown) {
        log::problem(warning_of_keyword(keyword));
    }
    return sources;
}

// The array is only asked where it can matter.
std::vector<SourceDevice> Cycle::devices_below_if_any_is_held(const std::vector<Source> &sources) {
    const auto snapshots = catalogue_.all();
    const bool any =
        std::any_of(snapshots.begin(), snapshots.end(), [](const SnapshotRecord &snapshot) {
            return !is_over(snapshot.state) && !snapshot.is_target;
        });
    return any ? devices_below(settings_, sources) : std::vector<SourceDevice>();
}

// One transaction from the look at what other snapshots hold to the entry: two commands that start
// together cannot both find an object free.
int64_t Cycle::enter(const std::vector<Source> &sources) {
    // Asked before it: nobody else should wait for the array's answer.
    const auto devices = devices_below_if_any_is_held(sources);
    Catalogue::Transaction whole(catalogue_);
    const auto others = catalogue_.all();
    refuse_held(settings_.state, sources, others);
    refuse_held_devices(sources, devices, others);
    refuse_equal_clone_names(sources, others);
    if (!settings_.mount_at.empty()) {
        for (size_t i = 0; i < sources.size(); ++i) {
            const std::string folder = mount_folder(settings_.mount_at, i, sources.size());
            refuse_promised("--mount-at: " + folder, fs::weakly_canonical(folder), others);
        }
    }
    const int64_t id = catalogue_.enter(settings_.config);
    lock(id);
    std::unique_ptr<Failure> failed;
    try {
        catalogue_.set_objects(id, plan_objects(id, sources));
    } catch (const Failure &failure) {
        failed = std::make_unique<Failure>(failure);
        note(id, failure.what());
        catalogue_.set_state(id, State::failed);
    }
    whole.commit();
    if (failed != nullptr) throw *failed;
    return id;
}

std::vector<ObjectRecord> Cycle::plan_objects(int64_t id, const std::vector<Source> &sources) {
    std::vector<ObjectRecord> objects;
    try {
        for (size_t i = 0; i < sources.size(); ++i) plan_object(id, sources, i, objects);
    } catch (const Failure &) {
        remove_made_folders(objects);
        throw;
    }
    return objects;
}

void Cycle::plan_object(int64_t id, const std::vector<Source> &sources, size_t i,
                        std::vector<ObjectRecord> &objects) {
    ObjectRecord &object = objects.emplace_back();
    const bool own = settings_.mount_at.empty();
    const std::string folder = own ? settings_.state + "/" + path::mount_folder + "/" +
                                         short_host_name() + "-" + std::to_string(id) + "-" +
                                         std::to_string(i + 1)
                                   : mount_folder(settings_.mount_at, i, sources.size());
    object.source = sources[i].path;
    object.kind = name_of(sources[i].kind);
    object.inside = sources[i].inside;
    object.device = static_cast<int64_t>(sources[i].device);
    object.mount_dir = sources[i].mount_dir;
    object.vol_group = sources[i].vol_group;
    object.vol_name = sources[i].vol_name;
    object.fifs = folder;
    object.made_fifs = make_folder(folder);
    // One of fimctl's own is its own also when a killed fimctl has made it; what lies above stays.
    if (own) object.made_fifs = 1;
    object.fifs = real_name(folder);
    if (object.fifs.size() > longest_fifs) throw unusable(object.fifs + ": path too long");
}

// To undo a cut is to freeze the same paths again. What they lead to by now may be something else,
// and its mirror the copy of another snapshot.
void Cycle::check_before_undo(const SnapshotRecord &snapshot) {
    std::vector<std::string> paths;
    for (const ObjectRecord &object : snapshot.objects) paths.push_back(object.source);
    const auto sources = look_at_sources(paths);
    const auto devices = devices_below(settings_, sources);
    auto others = catalogue_.all();
    std::erase_if(others, [&](const SnapshotRecord &other) { return other.id == snapshot.id; });
    refuse_moved(snapshot, devices);
    refuse_held(settings_.state, sources, others);
    refuse_held_devices(sources, devices, others);
}

// Only what was made for this snapshot, and only when it is empty: rmdir sees to that.
void Cycle::remove_folders(const SnapshotRecord &snapshot) {
    remove_made_folders(snapshot.objects);
    std::error_code error;
    fs::remove_all(scratch(snapshot.id), error);
}

}  // namespace fimctl
