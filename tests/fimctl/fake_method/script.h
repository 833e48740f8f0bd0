// What the scripted libraries share: where their script, their record and their array lie.
//
// script: "CALL N ACTION ARGUMENT..." lines; N is the number of the call in its process, or "*".
//   fail NUMBER TEXT            the call fails with this error number and message
//   fail-with-handle NUMBER TEXT  a freeze that fails late: it returns its record and keeps its
//   lock sleep MILLISECONDS, die, log LINE, copy FROM TO frozen? DIRECTORY           records
//   whether the file system is frozen just now fithaw DIRECTORY            thaws it behind
//   everybody's back keep-split-from SYMID       the commit leaves this array's pairs alone
// calls: "PID CALL DETAIL" lines, in order.
// array: "SYMID DEVICE BCV STATE" lines.
// objects: "SOURCE TYPE SYMID DEVICE BCV" lines, one a pair.
// volumes: "SOURCE GROUP VOLUME" lines, of the sources that are volumes. A configuration that names
// an alternate backup client has their group imported, and its first object names all pairs.
// groups: "CLONE VOLUME" lines, of what is up; VOLUME is "*" for an imported group.
// devices: "SYMID NAME PATH GROUP LABEL PORT..." lines, "-" for none: what a show call says.
// version: the number that the array's library reports, when it is not 0x05000000.
// conf: the entries of the host's configuration, one key a line.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace fake {

inline const std::string folder = "/var/fake";

inline std::vector<std::string> lines_of(const std::string &name) {
    std::vector<std::string> lines;
    std::ifstream in(folder + "/" + name);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

struct ArrayPair {
    std::string symid, device, bcv;
    long state = 0;
};

inline std::vector<ArrayPair> read_array() {
    std::vector<ArrayPair> pairs;
    for (const std::string &line : lines_of("array")) {
        ArrayPair pair;
        std::istringstream(line) >> pair.symid >> pair.device >> pair.bcv >> pair.state;
        pairs.push_back(pair);
    }
    return pairs;
}

struct ArrayDevice {
    std::string symid, name, path, group, label;
    std::vector<std::string> ports;
};

inline std::vector<ArrayDevice> read_devices() {
    std::vector<ArrayDevice> devices;
    const auto plain = [](const std::string &word) { return word == "-" ? "" : word; };
    for (const std::string &line : lines_of("devices")) {
        ArrayDevice device;
        std::istringstream words(line);
        std::string path, group, label;
        words >> device.symid >> device.name >> path >> group >> label;
        device.path = plain(path);
        device.group = plain(group);
        device.label = plain(label);
        for (std::string port; words >> port;) device.ports.push_back(port);
        devices.push_back(device);
    }
    return devices;
}

inline unsigned long version() {
    const auto lines = lines_of("version");
    return lines.empty() ? 0x05000000 : std::stoul(lines.front(), nullptr, 0);
}

inline void write_array(const std::vector<ArrayPair> &pairs) {
    std::ofstream out(folder + "/array", std::ios::trunc);
    for (const ArrayPair &pair : pairs) {
        out << pair.symid << " " << pair.device << " " << pair.bcv << " " << pair.state << "\n";
    }
}

}  // namespace fake
