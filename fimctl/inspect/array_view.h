// What the array says about a device and its BCVs, as plain values that travel between processes.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "fimctl/array_session.h"

namespace fimctl {

struct BcvView {
    // Of the primary's entry for it.
    std::string name, group, primary, primary_group;
    long state = 0;
    // Of its own record; trouble says why there is none.
    std::string trouble, own_group, label;
    std::string path;                // on this host, "" when it is not seen here
    std::vector<std::string> ports;  // its other paths

    bool is_labelled() const;
    bool is_seen() const { return !path.empty() || !ports.empty(); }
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BcvView, name, group, primary, primary_group, state, trouble,
                                   own_group, label, path, ports)

struct DeviceView {
    std::string asked;               // the path it was asked for by
    std::string trouble;             // why the array does not show it; "" when it does
    std::string symid, name, group;  // the array, the device, its device group
    std::string path;
    std::vector<std::string> ports;
    std::vector<BcvView> bcvs;  // in the array's order

    std::string array_name() const { return symid + "/" + name; }
    // The array shows a pair from both of its ends; at a BCV the entry names another device.
    bool is_primary() const;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(DeviceView, asked, trouble, symid, name, group, path, ports,
                                   bcvs)

// Reads a device by its host path, and each of its BCVs.
DeviceView view_of(ArraySession &session, const std::string &path);

// Whether the BCV is in the device group of the primary, by all three records that say so.
bool is_associated(const DeviceView &device, const BcvView &bcv);

// Which BCV the method would take, by its own rules, and what it would do to get there.
struct BcvChoice {
    int index = -1;                // of the device's BCVs; -1: none
    bool establishes = false;      // the pair is going to be established
    std::vector<size_t> released;  // synchronised BCVs of another association, split on the way
    std::string trouble;           // why the array did not let the choice be made
};
BcvChoice choose_bcv(const DeviceView &device);

// The names of disks that this host has, as far as the method knows such names.
std::vector<std::string> disks_of_host();

}  // namespace fimctl
