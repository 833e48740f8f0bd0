#include "fimctl/restore/bring_back.h"

#include <algorithm>

#include "fimctl/log.h"
#include "fimctl/restore/order.h"
#include "fimctl/restore/tools.h"

namespace fimctl {
namespace {

void add(std::string &trouble, const std::string &what, const ToolResult &result) {
    if (result.good()) return;
    trouble += (trouble.empty() ? "" : "; ") + what + ": " + result.reason();
    log::problem(what + ": " + result.output);
}

// The mount of a file system on its directory, if there is one.
const MountLine *mount_of(const RestoreObject &object, const std::vector<MountLine> &mounts) {
    const auto device = block_number(object.block);
    for (const MountLine &mount : mounts) {
        if (device && mount.device == *device && mount.directory == object.directory) return &mount;
    }
    return nullptr;
}

bool is_mounted(const RestoreObject &object) {
    const auto mounts = read_mounts();
    return mount_of(object, mounts) != nullptr;
}

// A file system before those that are mounted on it.
std::vector<RestoreObject> in_order_of_mounts(const RestorePlan &plan) {
    std::vector<RestoreObject> objects;
    for (const RestoreObject &object : plan.objects) {
        if (object.is_file_system()) objects.push_back(object);
    }
    std::stable_sort(objects.begin(), objects.end(),
                     [](const RestoreObject &first, const RestoreObject &second) {
                         return first.directory.size() < second.directory.size();
                     });
    return objects;
}

// With the mirrors split, a host that knows their disks has two sets of disks of one group, and of
// two disks with one identity the volume manager takes the one that was put online last.
void prefer_primaries(const RestorePlan &plan, const std::string &group) {
    for (const RestorePair &pair : plan.pairs) {
        if (pair.group == group) put_disk_online(pair.primary);
    }
}

// The mirrors were imported in their place: what is mounted from them goes, and so do they.
ToolResult let_mirrors_go(const RestorePlan &plan, const std::string &group) {
    for (const RestoreObject &object : plan.objects) {
        if (object.group == group && object.is_file_system() && is_mounted(object)) {
            unmount(object.directory);
        }
    }
    return deport_group(group);
}

// "" when it could be done.
std::string bring_in(const RestorePlan &plan, const std::string &group, const std::string &clone) {
    std::string trouble;
    if (is_imported(group)) {
        if (foreign_disk(plan, group).empty()) return "";
        const ToolResult gone = let_mirrors_go(plan, group);
        add(trouble, "deport of disk group " + group + ", which lies on its mirrors", gone);
        if (!gone.good()) return trouble;
    }
    prefer_primaries(plan, group);
    const ToolResult result = import_group(group, clone);
    add(trouble, "import of disk group " + group, result);
    const std::string foreign = result.good() ? foreign_disk(plan, group) : "";
    if (foreign.empty()) return trouble;
    return "disk group " + group + " is imported, but not from its primary disk " + foreign;
}

}  // namespace

std::string foreign_disk(const RestorePlan &plan, const std::string &group) {
    for (const RestorePair &pair : plan.pairs) {
        const std::string disk = readable_disk(pair.primary);
        if (pair.group == group && !disk.empty() && !is_held(disk)) return pair.primary;
    }
    return "";
}

std::string import_groups(const RestorePlan &plan) {
    std::string trouble;
    for (const RestoreGroup &group : plan.groups) {
        const std::string one = bring_in(plan, group.name, group.clone);
        if (!one.empty()) trouble += (trouble.empty() ? "" : "; ") + one;
    }
    return trouble;
}

std::string mount_restored(const RestorePlan &plan) {
    std::string trouble;
    const std::string type = plan.objects.back().fstype;
    for (const RestoreObject &object : in_order_of_mounts(plan)) {
        const auto mounts = read_mounts();
        if (const MountLine *mount = mount_of(object, mounts)) {
            if (object.options.empty() || mount->options == object.options) continue;
            add(trouble, "mount options of " + object.directory,
                set_mount_options(object.directory, object.options));
            continue;
        }
        ToolResult result;
        result.status = 0;
        if (!is_checked_as(object.fstype, type)) {
            result = check_file_system(object.block, object.fstype);
            add(trouble, "check of " + object.block, result);
        }
        if (!result.good()) continue;
        add(trouble, "mount of " + object.directory,
            mount_file_system(object.block, object.directory, object.fstype, object.options));
    }
    return trouble;
}

std::string put_back(const RestorePlan &plan) {
    std::string trouble = import_groups(plan);
    if (!trouble.empty()) return trouble;
    auto objects = in_order_of_mounts(plan);
    for (const RestoreObject &object : objects) {
        if (!object.mounted || is_mounted(object)) continue;
        add(trouble, "mount of " + object.directory,
            mount_file_system(object.block, object.directory, object.fstype, object.options));
    }
    std::reverse(objects.begin(), objects.end());
    for (const RestoreObject &object : objects) {
        if (object.mounted || !is_mounted(object)) continue;
        add(trouble, "unmount of " + object.directory, unmount(object.directory));
    }
    return trouble;
}

}  // namespace fimctl
