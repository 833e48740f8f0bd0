// All arrays of one world with their devices, pairs and groups, and which host sees what.
//
// Pure: no clock, no file, no socket. Every change is noted in `changes`, so that the store writes
// what changed and nothing else. The records are found through indexes; no look-up walks them all.
#pragma once

#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lab/array/model/records.h"

namespace lab {

// What has to be saved.
struct Changes {
    std::set<std::string> arrays, hosts;
    std::set<int64_t> devices, pairs;
    std::set<std::pair<std::string, int64_t>> views;  // host, device; also when it is gone
    bool settings = false, faults = false;
    bool any() const {
        return settings || faults || !arrays.empty() || !hosts.empty() || !devices.empty() ||
               !pairs.empty() || !views.empty();
    }
};

class World {
  public:
    // Building. Each throws Refused and changes nothing when it cannot be.
    void add_array(const std::string &symid, uint64_t capacity);
    Device &add_device(const std::string &symid, const std::string &name, uint64_t size, bool bcv);
    // Takes back the device that was added last.
    void undo_device(int64_t id);
    Pair &add_pair(const std::string &symid, const std::string &primary, const std::string &bcv);
    void set_label(const std::string &symid, const std::string &name, const std::string &ldev);
    // ldev "" keeps the logical name.
    void set_group(const std::string &symid, const std::string &name, const std::string &group,
                   const std::string &ldev);
    // A host may be masked before it is known; its nodes are made when it comes.
    void add_host(const HostRecord &host);
    void remove_host(const std::string &name);
    View &mask(const std::string &symid, const std::string &name, const std::string &host,
               const std::vector<Path> &paths);
    View unmask(const std::string &symid, const std::string &name, const std::string &host);
    // Takes a path of a host down or up and answers the view it belongs to.
    View &set_path(const std::string &host, const std::string &path, bool down);

    // Looking up; null when there is none.
    const ArrayRecord *array(const std::string &symid) const;
    const Device *device(const std::string &symid, const std::string &name) const;
    const Device *by_path(const std::string &host, const std::string &path) const;
    const View *view(const std::string &host, int64_t device) const;
    const Pair *pair_of(int64_t primary, int64_t bcv) const;
    const HostRecord *host(const std::string &name) const;
    // Devices of a group, in the order in which they were made; empty when there is no such group.
    const std::vector<int64_t> &group(const std::string &name) const;

    const Device &device(int64_t id) const { return devices_.at(id); }
    const Pair &pair(int64_t id) const { return pairs_.at(id); }
    Pair &change_pair(int64_t id);
    Settings &change_settings();

    const Settings &settings() const { return settings_; }
    const std::map<std::string, ArrayRecord> &arrays() const { return arrays_; }
    const std::map<int64_t, Device> &devices() const { return devices_; }
    const std::map<int64_t, Pair> &pairs() const { return pairs_; }
    const std::map<std::string, HostRecord> &hosts() const { return hosts_; }
    const std::map<std::pair<std::string, int64_t>, View> &views() const { return views_; }

    // Ends the transitions that are over at `now` and answers their pairs, in the order of time.
    std::vector<int64_t> settle(Micros now);
    // When the next transition ends; 0 when none is under way.
    Micros next_end() const { return pending_.empty() ? 0 : pending_.begin()->first; }
    // Enters a pair's transition (state, started, ends) for `settle`; ends == started is over at
    // once.
    void begin(Pair &pair, PairState state, Micros now, Micros duration);

    // Reading a saved world: records as they were, in ascending order of their numbers.
    void load(const ArrayRecord &array) { arrays_[array.symid] = array; }
    void load(const Device &device);
    void load(const Pair &pair);
    void load(const HostRecord &host) { hosts_[host.name] = host; }
    void load(const View &view);
    void load(const Settings &settings) { settings_ = settings; }

    Changes changes;

  private:
    Device &must_find(const std::string &symid, const std::string &name);
    void check_paths(const std::string &host, const std::vector<Path> &paths) const;
    void leave_group(const Device &device);

    Settings settings_;
    std::map<std::string, ArrayRecord> arrays_;
    std::map<int64_t, Device> devices_;
    std::map<int64_t, Pair> pairs_;
    std::map<std::string, HostRecord> hosts_;
    std::map<std::pair<std::string, int64_t>, View> views_;
    std::unordered_map<std::string, int64_t> by_name_;  // "SYMID NAME"
    std::unordered_map<std::string, std::unordered_map<std::string, int64_t>>
        by_path_;  // host, path
    std::unordered_map<std::string, std::vector<int64_t>> groups_;
    std::set<std::pair<Micros, int64_t>> pending_;  // end of a transition, pair
};

// What is wrong with a world, one sentence each; empty when nothing is.
std::vector<std::string> broken_invariants(const World &world);

}  // namespace lab
