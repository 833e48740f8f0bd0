// A host with one object on one pair, every name of which can be chosen; and the calls that a
// framework makes about it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "proof/hostile_names/array.h"

namespace hostile {

struct Setting {
    std::string config;  // empty: none is given
    std::string source = "/data";
    std::string mount_point = "/copy";
    std::string device = "/dev/qz/dmp/p0";  // of the source, by the mount table
    std::string fstype = "ext4";            // the same
    std::string host = "client1";
    std::string temporary_folder;                       // TMPDIR; empty: not set
    std::string host_entries;                           // the product's configuration file
    std::string listed_device = "/dev/qz/rdmp/p0";      // what the clone tool lists of a volume
    std::string serial = "S1", device_path = "/dev/x";  // what is told of a device
    std::string set = "set1", component = "vol1";       // what the volume-set command lists
    std::string raw_volume = "/dev/qz/rdsk/datadg/vol1";
    std::map<std::string, std::string> values;  // of a checkpoint text, by its keys
    std::string stale = "/data/stale", clone_line = "volume vol1";  // of its clone block
    ArrayNames array;
};

// A volume of the volume manager holds the source.
void put_on_volume(Setting *setting, const std::string &group, const std::string &volume);

// Everything below has an effect on the calling process and the file tree that it sees.
void set_up(const Setting &setting);

// Calls of entry points that belong together, by name. Each returns what every call gave, as
// "freeze 0, volumes 11 3 QfMCmn0064N".
struct Operation {
    const char *name;
    // Puts the setting into the form that the operation needs, before a place changes a name in it.
    void (*prepare)(Setting *setting);
    std::string (*run)(const Setting &setting);
};
const std::vector<Operation> &operations();
const Operation &operation(const std::string &name);

}  // namespace hostile
