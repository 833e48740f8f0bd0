// Starting and stopping volumes: the block nodes /dev/qz/dsk/GROUP/VOLUME and their raw twins.
//
// A volume is a loop device over its window of the disk. A process a group, the holder, keeps the
// loops attached and every disk of the group open for itself alone, so that the array refuses to
// establish or restore over it. The holder ends with the host, and all it holds with it.
#pragma once

#include <string>
#include <vector>

#include "lab/qzvm/groups.h"

namespace qz {

// Starts volumes of an imported group; those that are started stay so. none: all of the group.
void start_volumes(const std::string &group, const std::vector<std::string> &volumes = {});
// Stops volumes; those that are stopped stay so. Refused, with nothing changed, while one is in
// use. none: all of the group.
void stop_volumes(const std::string &group, const std::vector<std::string> &volumes = {});

struct VolumeState {
    bool started = false;
    std::string use;  // "mounted on /data", "open in process 12 (dd)"; "": not in use
};
VolumeState volume_state(const std::string &group, const std::string &volume);
// The started volumes of an imported group.
std::vector<std::string> started_volumes(const std::string &group);

std::string volume_node(const std::string &group, const std::string &volume);
std::string raw_volume_node(const std::string &group, const std::string &volume);

}  // namespace qz
