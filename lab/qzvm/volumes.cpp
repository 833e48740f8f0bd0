#include "lab/qzvm/volumes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "lab/common/loop.h"
#include "lab/qzvm/holder.h"

namespace qz {
namespace {

namespace fs = std::filesystem;
using lab::common::Descriptor;

// In one step: whoever opens the path gets the old device or the new one.
void make_node(const std::string &path, unsigned minor) {
    std::error_code error;
    fs::create_directories(fs::path(path).parent_path(), error);
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());
    if (mknod(fresh.c_str(), S_IFBLK | 0600, makedev(lab::common::loop_major, minor)) != 0 ||
        rename(fresh.c_str(), path.c_str()) != 0) {
        fails("make node " + path);
    }
}

std::vector<std::string> nodes(const std::string &group, const std::string &name) {
    return {volume_node(group, name), raw_volume_node(group, name)};
}

// A set's data, too, are where its first volume is.
std::string first_volume(const VolumeSet &set) {
    return set.volumes.front();
}

// The nodes of a group are those of its started volumes, and of the sets that begin with one.
void make_nodes(const Group &group, const std::map<std::string, Attachment> &started) {
    std::map<std::string, Attachment> wanted = started;
    for (const VolumeSet &set : group.sets) {
        const auto first = started.find(first_volume(set));
        if (first != started.end()) wanted[set.name] = first->second;
    }
    for (const auto &[name, loop] : wanted) {
        for (const std::string &node : nodes(group.name, name)) make_node(node, loop.minor);
    }
}

// Removes the nodes of a group that lead to none of these.
void remove_other_nodes(const std::string &group,
                        const std::map<std::string, Attachment> &started) {
    std::error_code error;
    for (const char *base : {place::volumes, place::raw_volumes}) {
        const fs::path folder = fs::path(base) / group;
        std::vector<fs::path> found;
        for (const auto &entry : fs::directory_iterator(folder, error)) found.push_back(entry);
        for (const fs::path &node : found) {
            struct stat status = {};
            if (lstat(node.c_str(), &status) != 0) continue;
            const bool leads = std::any_of(started.begin(), started.end(), [&](const auto &one) {
                return makedev(lab::common::loop_major, one.second.minor) == status.st_rdev;
            });
            if (!leads) unlink(node.c_str());
        }
        rmdir(folder.c_str());  // when it is empty
    }
}

// The disks of a group, for the next holder.
Hold hold_disks(const Holding &now, const Imported &imported) {
    if (!now.alive && !now.volumes.empty()) {
        throw Error("volume " + now.volumes.begin()->first + " of group " + imported.group.name +
                    " is in use, though what held it was killed; end that use first");
    }
    Hold hold;
    for (const Disk &disk : imported.disks) hold.disks[disk.block] = hold_disk(now, disk.block);
    return hold;
}

void keep(Hold *hold, const std::string &name, const Attachment &loop) {
    Descriptor device(open(node_of(loop).c_str(), O_RDONLY | O_CLOEXEC));
    if (!device.good()) fails("open " + node_of(loop));
    hold->loops.push_back(std::move(device));
    hold->volumes[name] = loop;
}

void attach(Hold *hold, const Imported &imported, const Volume &volume) try {
    const std::string &path = imported.disk(volume.disks.front()).block;
    if (capacity_of(path) < volume.start + volume.length) {
        throw Error("volume " + volume.name + " does not fit on " + path);
    }
    // Past the cache of the disk: what is written is in the array's reach at once, and in order.
    lab::common::AttachedLoop loop = lab::common::attach_loop(
        hold->disks.at(path).get(), path, {volume.start, volume.length, true}, place::nodes);
    hold->volumes[volume.name] = attachment_of(loop.device.get(), loop.minor);
    hold->loops.push_back(std::move(loop.device));
} catch (const std::system_error &error) {
    throw Error(error.what());
}

// Takes volumes so that nobody can begin to use them; throws when somebody does.
std::vector<Descriptor> take_unused(const std::string &group, const Holding &now,
                                    const std::map<std::string, Attachment> &volumes) {
    std::vector<Descriptor> taken;
    for (const auto &[name, loop] : volumes) {
        taken.push_back(take_exclusively(loop));
        const std::string use =
            taken.back().good() ? open_in(loop, now.pid) : use_of(loop, now.pid);
        if (!use.empty()) throw Error("volume " + name + " of group " + group + " is " + use);
        if (!taken.back().good()) throw Error("volume " + name + " was in use just now; try again");
    }
    return taken;
}

}  // namespace

std::string volume_node(const std::string &group, const std::string &volume) {
    return std::string(place::volumes) + "/" + group + "/" + volume;
}

std::string raw_volume_node(const std::string &group, const std::string &volume) {
    return std::string(place::raw_volumes) + "/" + group + "/" + volume;
}

void start_volumes(const std::string &group, const std::vector<std::string> &names) {
    const Exclusive only;
    const Imported imported = imported_group(group);
    std::vector<Volume> wanted;
    for (const std::string &name : names) wanted.push_back(imported.volume(name));
    if (names.empty()) wanted = imported.group.volumes;

    const Holding now = holding_of(group);
    std::map<std::string, Attachment> started = now.volumes;
    const auto is_stopped = [&now](const Volume &one) { return !now.volumes.contains(one.name); };
    if (std::any_of(wanted.begin(), wanted.end(), is_stopped)) {
        Hold hold = hold_disks(now, imported);
        for (const auto &[name, loop] : now.volumes) keep(&hold, name, loop);
        for (const Volume &volume : wanted) {
            if (is_stopped(volume)) attach(&hold, imported, volume);
        }
        replace_holder(group, hold);
        started = hold.volumes;
    }
    remove_other_nodes(group, started);
    make_nodes(imported.group, started);
}

void stop_volumes(const std::string &group, const std::vector<std::string> &names) {
    const Exclusive only;
    if (!load_state().groups.contains(group)) {
        throw Error("group " + group + " is not imported here");
    }
    const Holding now = holding_of(group);
    std::map<std::string, Attachment> stopped, left;
    for (const auto &[name, loop] : now.volumes) {
        const bool stops = names.empty() || std::count(names.begin(), names.end(), name) != 0;
        (stops ? stopped : left)[name] = loop;
    }
    std::vector<Descriptor> taken = take_unused(group, now, stopped);
    remove_other_nodes(group, left);
    if (left.empty()) {
        end_holder(group);
    } else if (now.alive && !stopped.empty()) {
        Hold hold;
        for (const auto &[path, fd] : now.disks) hold.disks[path] = hold_disk(now, path);
        for (const auto &[name, loop] : left) keep(&hold, name, loop);
        replace_holder(group, hold);
    }
    taken.clear();
    for (const auto &[name, loop] : stopped) wait_until_free(loop);
}

VolumeState volume_state(const std::string &group, const std::string &volume) {
    const Exclusive only;
    const Holding now = holding_of(group);
    const auto found = now.volumes.find(volume);
    if (found == now.volumes.end()) return {};
    return {true, use_of(found->second, now.pid)};
}

std::vector<std::string> started_volumes(const std::string &group) {
    const Exclusive only;
    const Holding now = holding_of(group);
    std::vector<std::string> names;
    for (const auto &[name, loop] : now.volumes) names.push_back(name);
    return names;
}

}  // namespace qz
