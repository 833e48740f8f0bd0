#include "fimctl/copy_users.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "fimctl/restore/host_view.h"
#include "fimctl/source.h"

namespace fimctl {
namespace {

constexpr size_t most_named = 3;

std::string names(const std::vector<User> &users) {
    std::string text;
    for (size_t i = 0; i < std::min(users.size(), most_named); ++i) {
        text += (i == 0 ? "used by " : ", ") + users[i].command + " (pid " +
                std::to_string(users[i].pid) + ")";
    }
    if (users.size() > most_named) {
        text += " and " + std::to_string(users.size() - most_named) + " more";
    }
    return text;
}

std::string mounted_inside(const std::string &directory) {
    std::string text;
    for (const std::string &inner : mount_points_below(directory)) {
        if (inner != directory) text += (text.empty() ? "" : ", ") + inner;
    }
    return text;
}

std::vector<User> found(const std::map<dev_t, std::vector<User>> &users, dev_t device) {
    const auto entry = users.find(device);
    return entry == users.end() ? std::vector<User>() : entry->second;
}

std::string told_of_mount(const std::string &directory, const std::vector<User> &users) {
    std::string text = directory + " is still mounted";
    const std::string inner = mounted_inside(directory);
    if (!users.empty()) text += "; " + names(users);
    if (!inner.empty()) text += "; mounted inside it: " + inner;
    if (users.empty() && inner.empty()) text += ", and no process is seen that uses it";
    return text;
}

}  // namespace

std::string what_holds(const SnapshotRecord &snapshot) {
    Busy asked;
    std::map<std::string, dev_t> mounted, devices;
    for (const ObjectRecord &object : snapshot.objects) {
        struct stat status = {};
        if (is_mount_point(object.fifs) && stat(object.fifs.c_str(), &status) == 0) {
            mounted[object.fifs] = status.st_dev;
            asked.file_systems.insert(status.st_dev);
        } else if (const auto device = block_number(object.copy)) {
            devices[object.copy] = *device;
            asked.devices.insert(*device);
        }
    }
    if (mounted.empty() && devices.empty()) return "";
    const auto users = users_of(asked);
    std::string text;
    const auto add = [&text](const std::string &line) {
        text += (text.empty() ? "" : "; ") + line;
    };
    for (const auto &[directory, device] : mounted) {
        add(told_of_mount(directory, found(users, device)));
    }
    for (const auto &[path, device] : devices) {
        const auto own = found(users, device);
        if (!own.empty()) add(path + " is still open; " + names(own));
    }
    return text;
}

}  // namespace fimctl
