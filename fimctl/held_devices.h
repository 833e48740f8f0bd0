// Which devices of the array lie below what is to be frozen, and whose they are just now.
//
// A device has as many names as paths lead to it, a disk lies below its volumes, and numbers change
// when the system is started. Only the array knows that two of them are one device, with one
// mirror: to freeze it a second time would establish that mirror again, over the copy that it
// holds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fimctl/catalogue.h"
#include "fimctl/source.h"

namespace fimctl {

struct Plan;
struct Settings;

struct SourceDevice {
    size_t source = 0;  // index
    std::string symid, name;
};

// Those that a plan has found.
std::vector<SourceDevice> devices_of(const Plan &plan);
// As far as host and array tell; what they do not is left to the method.
std::vector<SourceDevice> devices_below(const Settings &settings,
                                        const std::vector<Source> &sources);

// Throws Failure (usage) when a snapshot that is not over holds one of the devices.
void refuse_held_devices(const std::vector<Source> &sources,
                         const std::vector<SourceDevice> &devices,
                         const std::vector<SnapshotRecord> &snapshots);

// Throws Failure (left) when an object's path leads to other devices than it was taken of.
void refuse_moved(const SnapshotRecord &snapshot, const std::vector<SourceDevice> &devices);

}  // namespace fimctl
