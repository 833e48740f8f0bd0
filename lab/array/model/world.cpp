#include "lab/array/model/world.h"

#include <algorithm>

#include "include/symapi.h"

namespace lab {
namespace {

std::string key(const std::string &symid, const std::string &name) {
    return symid + " " + name;
}

bool all_of_kind(const std::string &text, const char *allowed) {
    return text.find_first_not_of(allowed) == std::string::npos;
}

// The record of a device carries names of this size; a longer one would arrive cut and not match.
void check_name(const std::string &what, const std::string &text) {
    if (text.empty() || text.size() >= SYM_GROUP_SIZE) {
        throw Refused(what + " \"" + text + "\" has to have 1 to 63 characters");
    }
}

Path *find_path(View &view, const std::string &path) {
    for (Path &one : view.paths) {
        if (one.path == path) return &one;
    }
    return nullptr;
}

}  // namespace

void World::add_array(const std::string &symid, uint64_t capacity) {
    if (symid.size() != SYM_SYMID_SIZE - 1 || !all_of_kind(symid, "0123456789")) {
        throw Refused("array \"" + symid + "\": a serial number has 12 digits");
    }
    if (arrays_.contains(symid)) throw Refused("array " + symid + " exists already");
    arrays_[symid] = {symid, capacity, 0};
    changes.arrays.insert(symid);
}

Device &World::add_device(const std::string &symid, const std::string &name, uint64_t size,
                          bool bcv) {
    const auto found = arrays_.find(symid);
    if (found == arrays_.end()) throw Refused(code::array_unknown, symid);
    ArrayRecord &array = found->second;
    if (name.size() != 4 || !all_of_kind(name, "0123456789ABCDEF")) {
        throw Refused("device \"" + name + "\": a name has 4 characters of 0-9 and A-F");
    }
    if (by_name_.contains(key(symid, name))) {
        throw Refused("device " + symid + " " + name + " exists already");
    }
    if (size == 0 || size % size_unit != 0) {
        throw Refused("device " + name + ": a size is a multiple of 1 MiB");
    }
    if (!bcv && array.capacity != 0 && array.used + size > array.capacity) {
        throw Refused("array " + symid + " is full");
    }
    Device added;
    added.id = devices_.empty() ? 1 : devices_.rbegin()->first + 1;
    added.symid = symid;
    added.name = name;
    added.size = size;
    added.bcv = bcv;
    added.ldev = (bcv ? "BCV" : "DEV") + name;
    if (!bcv) {
        added.offset = array.used;
        array.used += size;
        changes.arrays.insert(symid);
    }
    by_name_[key(symid, name)] = added.id;
    changes.devices.insert(added.id);
    return devices_[added.id] = added;
}

void World::undo_device(int64_t id) {
    const Device gone = devices_.at(id);
    if (!gone.bcv) arrays_.at(gone.symid).used -= gone.size;
    by_name_.erase(key(gone.symid, gone.name));
    devices_.erase(id);
    changes.devices.erase(id);
}

Pair &World::add_pair(const std::string &symid, const std::string &primary_name,
                      const std::string &bcv_name) {
    Device &primary = must_find(symid, primary_name), &bcv = must_find(symid, bcv_name);
    if (primary.bcv) throw Refused(code::not_a_standard, primary_name);
    if (!bcv.bcv) throw Refused(code::not_a_bcv, bcv_name);
    if (primary.size != bcv.size) {
        throw Refused("pair " + primary_name + " " + bcv_name + ": the sizes differ");
    }
    if (pair_of(primary.id, bcv.id) != nullptr) {
        throw Refused("pair " + primary_name + " " + bcv_name + " exists already");
    }
    if (primary.pairs.size() >= SYM_MAX_BCVS || bcv.pairs.size() >= SYM_MAX_BCVS) {
        throw Refused("pair " + primary_name + " " + bcv_name + ": a device has 16 pairs at most");
    }
    Pair added;
    added.id = pairs_.empty() ? 1 : pairs_.rbegin()->first + 1;
    added.primary = primary.id;
    added.bcv = bcv.id;
    primary.pairs.push_back(added.id);
    bcv.pairs.push_back(added.id);
    changes.pairs.insert(added.id);
    return pairs_[added.id] = added;
}

void World::set_label(const std::string &symid, const std::string &name, const std::string &ldev) {
    Device &device = must_find(symid, name);
    check_name("logical name", ldev);
    device.ldev = ldev;
    changes.devices.insert(device.id);
}

void World::leave_group(const Device &device) {
    const auto old = groups_.find(device.group);
    if (old == groups_.end()) return;
    std::erase(old->second, device.id);
    if (old->second.empty()) groups_.erase(old);
}

void World::set_group(const std::string &symid, const std::string &name, const std::string &group,
                      const std::string &ldev) {
    Device &device = must_find(symid, name);
    check_name("group", group);
    if (!ldev.empty()) check_name("logical name", ldev);
    leave_group(device);
    device.group = group;
    if (!ldev.empty()) device.ldev = ldev;
    std::vector<int64_t> &members = groups_[group];
    members.insert(std::lower_bound(members.begin(), members.end(), device.id), device.id);
    changes.devices.insert(device.id);
}

void World::add_host(const HostRecord &host) {
    if (host.name.empty() || host.socket.empty() || host.dev.empty()) {
        throw Refused("a host has a name, a socket and a folder of devices");
    }
    if (hosts_.contains(host.name)) throw Refused("host " + host.name + " exists already");
    hosts_[host.name] = host;
    changes.hosts.insert(host.name);
}

void World::remove_host(const std::string &name) {
    if (hosts_.erase(name) == 0) throw Refused("there is no host " + name);
    changes.hosts.insert(name);
}

void World::check_paths(const std::string &host, const std::vector<Path> &paths) const {
    const auto known = by_path_.find(host);
    std::set<std::string> given;
    size_t ports = 0;
    bool named = false;
    for (const Path &one : paths) {
        const std::string shown = "path \"" + one.path + "\"";
        if (!one.path.starts_with("/dev/") || one.path.find("/../") != std::string::npos ||
            one.path.ends_with("/") || one.path.ends_with("/..")) {
            throw Refused(shown + " does not lie under /dev");
        }
        if (one.path.size() >= SYM_PDEV_SIZE) throw Refused(shown + " has over 47 characters");
        if (!given.insert(one.path).second ||
            (known != by_path_.end() && known->second.contains(one.path))) {
            throw Refused(shown + " is taken on host " + host);
        }
        if (one.port && ++ports > SYM_MAX_PORTS) throw Refused("a device has 16 ports at most");
        named = named || !one.port;
    }
    if (!named) throw Refused("a mask needs one path that is no port");
}

View &World::mask(const std::string &symid, const std::string &name, const std::string &host,
                  const std::vector<Path> &paths) {
    const Device &device = must_find(symid, name);
    if (view(host, device.id) != nullptr) {
        throw Refused("device " + name + " is masked to host " + host + " already");
    }
    check_paths(host, paths);
    const auto at = std::pair(host, device.id);
    changes.views.insert(at);
    for (const Path &one : paths) by_path_[host][one.path] = device.id;
    return views_[at] = {host, device.id, paths};
}

View World::unmask(const std::string &symid, const std::string &name, const std::string &host) {
    const auto at = std::pair(host, must_find(symid, name).id);
    const auto found = views_.find(at);
    if (found == views_.end()) throw Refused("device " + name + " is not masked to host " + host);
    View gone = found->second;
    for (const Path &one : gone.paths) by_path_[host].erase(one.path);
    views_.erase(found);
    changes.views.insert(at);
    return gone;
}

View &World::set_path(const std::string &host, const std::string &path, bool down) {
    const Device *device = by_path(host, path);
    if (device == nullptr) throw Refused(code::path_unknown, path);
    const auto at = std::pair(host, device->id);
    View &found = views_.at(at);
    find_path(found, path)->down = down;
    changes.views.insert(at);
    return found;
}

Device &World::must_find(const std::string &symid, const std::string &name) {
    if (!arrays_.contains(symid)) throw Refused(code::array_unknown, symid);
    const auto found = by_name_.find(key(symid, name));
    if (found == by_name_.end()) throw Refused(code::device_unknown, symid + " " + name);
    return devices_.at(found->second);
}

const ArrayRecord *World::array(const std::string &symid) const {
    const auto found = arrays_.find(symid);
    return found == arrays_.end() ? nullptr : &found->second;
}

const Device *World::device(const std::string &symid, const std::string &name) const {
    const auto found = by_name_.find(key(symid, name));
    return found == by_name_.end() ? nullptr : &devices_.at(found->second);
}

const Device *World::by_path(const std::string &host, const std::string &path) const {
    const auto paths = by_path_.find(host);
    if (paths == by_path_.end()) return nullptr;
    const auto found = paths->second.find(path);
    return found == paths->second.end() ? nullptr : &devices_.at(found->second);
}

const View *World::view(const std::string &host, int64_t device) const {
    const auto found = views_.find({host, device});
    return found == views_.end() ? nullptr : &found->second;
}

const Pair *World::pair_of(int64_t primary, int64_t bcv) const {
    for (const int64_t id : devices_.at(primary).pairs) {
        const Pair &one = pairs_.at(id);
        if (one.bcv == bcv) return &one;
    }
    return nullptr;
}

const HostRecord *World::host(const std::string &name) const {
    const auto found = hosts_.find(name);
    return found == hosts_.end() ? nullptr : &found->second;
}

const std::vector<int64_t> &World::group(const std::string &name) const {
    static const std::vector<int64_t> none;
    const auto found = groups_.find(name);
    return found == groups_.end() ? none : found->second;
}

Pair &World::change_pair(int64_t id) {
    changes.pairs.insert(id);
    return pairs_.at(id);
}

Settings &World::change_settings() {
    changes.settings = true;
    return settings_;
}

void World::load(const Device &device) {
    devices_[device.id] = device;
    devices_[device.id].pairs.clear();
    by_name_[key(device.symid, device.name)] = device.id;
    if (!device.group.empty()) groups_[device.group].push_back(device.id);
}

void World::load(const Pair &pair) {
    pairs_[pair.id] = pair;
    devices_.at(pair.primary).pairs.push_back(pair.id);
    devices_.at(pair.bcv).pairs.push_back(pair.id);
    if (pair.ends != 0) pending_.insert({pair.ends, pair.id});
}

void World::load(const View &view) {
    views_[{view.host, view.device}] = view;
    for (const Path &one : view.paths) by_path_[view.host][one.path] = view.device;
}

}  // namespace lab
