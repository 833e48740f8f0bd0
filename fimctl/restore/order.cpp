#include "fimctl/restore/order.h"

#include <algorithm>

namespace fimctl {
namespace {

// One checker serves all of them.
bool is_extended(const std::string &type) {
    return type == "ext2" || type == "ext3" || type == "ext4";
}

// Its check program looks at nothing, and so speaks against nothing: these file systems are
// mended when they are mounted.
bool is_never_checked(const std::string &type) {
    return type == "xfs" || type == "btrfs";
}

size_t depth_of(const std::string &directory) {
    return static_cast<size_t>(std::count(directory.begin(), directory.end(), '/'));
}

// Devices come first: one that is last would be mounted as if it were a file system. A file system
// that is mounted on another one goes away before it.
bool ends_before(const RestoreObject &first, const RestoreObject &second) {
    if (first.is_file_system() != second.is_file_system()) return !first.is_file_system();
    if (!first.is_file_system()) return false;
    return depth_of(first.directory) > depth_of(second.directory);
}

bool lies_on_another(const RestoreObject &object, const std::vector<RestoreObject> &objects) {
    return std::any_of(objects.begin(), objects.end(), [&object](const RestoreObject &other) {
        return &other != &object && other.is_file_system() &&
               lies_below(object.directory, other.directory);
    });
}

bool fits_all(const std::string &type, const std::vector<RestoreObject> &objects) {
    return is_never_checked(type) ||
           std::all_of(objects.begin(), objects.end(), [&type](const RestoreObject &other) {
               return !other.is_file_system() || is_checked_as(other.fstype, type);
           });
}

// The file system to end last: one that lies on no other one, and whose check fits. A type with a
// real check comes before one without, so that the method checks as much as it can.
size_t choose_last(const std::vector<RestoreObject> &objects) {
    size_t chosen = objects.size();
    for (size_t i = 0; i < objects.size(); ++i) {
        const RestoreObject &object = objects[i];
        if (!object.is_file_system() || lies_on_another(object, objects)) continue;
        if (!fits_all(object.fstype, objects)) continue;
        if (chosen == objects.size() || !is_never_checked(object.fstype)) chosen = i;
    }
    return chosen;
}

}  // namespace

bool is_checked_as(const std::string &type, const std::string &checked) {
    if (is_extended(type)) return is_extended(checked);
    return type == checked;
}

void order_objects(RestorePlan &plan) {
    auto &objects = plan.objects;
    std::stable_sort(objects.begin(), objects.end(), ends_before);
    const bool has_file_system = !objects.empty() && objects.back().is_file_system();
    if (has_file_system) {
        const size_t last = choose_last(objects);
        if (last == objects.size()) {
            plan.obstacles.push_back(
                {"its file systems have types that no single check fits, and the method checks all "
                 "of them as one type",
                 "take snapshots of one type of file system each; this one can be mounted and read "
                 "on the backup host"});
        } else {
            std::rotate(objects.begin() + static_cast<std::ptrdiff_t>(last),
                        objects.begin() + static_cast<std::ptrdiff_t>(last) + 1, objects.end());
        }
    }
    plan.rebuild_order.clear();
    for (const bool last_group : {false, true}) {
        for (size_t i = 0; i < objects.size(); ++i) {
            if ((objects[i].group == objects.back().group) == last_group) {
                plan.rebuild_order.push_back(i);
            }
        }
    }
}

}  // namespace fimctl
