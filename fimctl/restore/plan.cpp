#include "fimctl/restore/plan.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <set>

#include "fimctl/array_reader.h"
#include "fimctl/disk_group.h"
#include "fimctl/paths.h"
#include "fimctl/restore/measure.h"
#include "fimctl/restore/obstacles.h"
#include "fimctl/restore/order.h"
#include "fimctl/restore/texts.h"
#include "fimctl/restore/tools.h"
#include "fimctl/source.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

// A mount as nobody asked for anything special.
constexpr const char *plain_options[] = {"rw", "rw,relatime"};

RestoreObject object_of(const ObjectRecord &record, size_t number) {
    const CheckpointText text(record.text);
    RestoreObject object;
    object.number = number;
    object.source = record.source;
    object.type = static_cast<int>(strtol(text.value("HDEF-object_type").c_str(), nullptr, 10));
    object.group = text.value("HDEF-vol_group");
    object.volume = text.value("HDEF-vol_name");
    object.block = text.value("HDEF-dev_block_device");
    object.fstype = text.value("HDEF-fstype");
    return object;
}

// Where the file system was mounted at the freeze, from the path that was frozen: what was inside
// the file system is taken off its end. "" when the path says nothing, as behind a link.
std::string directory_at_freeze(const ObjectRecord &record) {
    if (!record.mount_dir.empty()) return record.mount_dir;
    std::string directory = record.source;
    const std::string &inside = record.inside;
    if (!inside.empty()) {
        if (!directory.ends_with(inside)) return "";
        directory.resize(directory.size() - inside.size());
        if (directory.empty()) return "";
    }
    std::error_code error;
    const std::string real = fs::canonical(directory, error);
    return error ? directory : real;
}

void place(RestoreObject &object, const ObjectRecord &record,
           const std::vector<MountLine> &mounts) {
    const std::string own = directory_at_freeze(record);
    object.directory = own;
    const auto device = block_number(object.block);
    for (const MountLine &mount : mounts) {
        if (!device || mount.device != *device || mount.root != "/") continue;
        // Mounted elsewhere as well since then: that is what has to go.
        if (object.mounted && object.directory == own) break;
        object.directory = mount.directory;
        object.mounted = object.mounted_now = true;
        const auto &plain = plain_options;
        const bool special =
            std::find(std::begin(plain), std::end(plain), mount.options) == std::end(plain);
        object.options = special ? mount.options : "";
    }
}

std::vector<std::string> volumes_of(const std::string &group) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(path::volume_folder + group, error)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void find_groups(RestorePlan &plan, const std::string &primary_host) {
    std::map<std::string, std::set<std::string>> objects_of;
    for (const RestoreObject &object : plan.objects) {
        objects_of[object.group].insert(object.volume);
    }
    for (const auto &[name, objects] : objects_of) {
        RestoreGroup group;
        group.name = name;
        group.clone = clone_name(primary_host, name);
        group.imported = is_imported(name);
        for (const std::string &volume : volumes_of(name)) {
            if (!objects.contains(volume)) group.bystanders.push_back(volume);
        }
        plan.groups.push_back(group);
    }
}

void find_pairs(RestorePlan &plan, const SnapshotRecord &snapshot) {
    std::vector<Pair> asked;
    for (const ObjectRecord &object : snapshot.objects) {
        const std::string group = CheckpointText(object.text).value("HDEF-vol_group");
        for (const PairLines &lines : pair_lines(object.text)) {
            RestorePair pair;
            pair.pair = lines.pair;
            pair.group = group;
            pair.primary = lines.primary;
            pair.mirror = readable_disk(lines.mirror);
            pair.size = size_of_disk(readable_disk(lines.primary));
            plan.pairs.push_back(pair);
            asked.push_back(lines.pair);
        }
    }
    const auto states = read_pair_states(asked, Step::restore);
    for (size_t i = 0; i < plan.pairs.size(); ++i) plan.pairs[i].state = states[i];
}

}  // namespace

bool RestoreObject::is_file_system() const {
    return type == file_system_object;
}

bool RestorePair::is_restored() const {
    return state == pair_state::restored || state == pair_state::restoring;
}

std::set<dev_t> disks_of(const RestorePlan &plan) {
    std::set<dev_t> disks;
    for (const RestorePair &pair : plan.pairs) {
        const auto device = block_number(readable_disk(pair.primary));
        if (device) disks.insert(*device);
    }
    return disks;
}

RestorePlan make_plan(const SnapshotRecord &snapshot, const PlanOptions &options) {
    refuse_unfit(snapshot);
    RestorePlan plan;
    plan.id = snapshot.id;
    plan.uuid = snapshot.uuid;
    plan.created = snapshot.created;
    plan.quiesced = snapshot.quiesced;
    plan.frozen_ms = snapshot.frozen_ms;
    plan.resumed = snapshot.state == State::restoring;
    const auto mounts = read_mounts();
    for (size_t i = 0; i < snapshot.objects.size(); ++i) {
        RestoreObject object = object_of(snapshot.objects[i], i);
        if (object.is_file_system()) place(object, snapshot.objects[i], mounts);
        plan.objects.push_back(object);
    }
    if (plan.resumed) apply_kept_form(plan, snapshot.restore_form);
    find_groups(plan, primary_host_of(snapshot));
    find_pairs(plan, snapshot);
    order_objects(plan);
    find_obstacles(plan, snapshot, mounts, options.abandoned);
    if (options.measure) measure(plan);
    plan.code = code_of(plan);
    return plan;
}

}  // namespace fimctl
