// The clone information of a disk group: what the clone tool writes down when a copy is made, so
// that whoever brings the copy up, perhaps on a host that does not see the group itself, knows the
// group's disks and volumes.
//
// It is a text of lines, each a keyword and words without blanks:
//
//   tessera-clone-information 1
//   group NAME ID
//   host NAME                       where the group is in use
//   plex NAME
//   disk ID RAW-PATH                one line a disk of the copy
//   volume NAME START LENGTH TYPE DISK-ID...     in bytes; "-" is no type
//   end CHECKSUM                    of all lines above
//
// The text is carried line by line inside another text, so every line ends with a newline and
// begins with one of these keywords, whatever the names are.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tessera {

struct CloneDisk {
    std::string id;
    std::string path;  // raw path of the original on the host of the group
};

struct CloneVolume {
    std::string name;
    uint64_t start = 0, length = 0;
    std::string type;  // of its file system, "" when it is not known
    std::vector<std::string> disks;
};

struct CloneInformation {
    std::string group, group_id, host, plex;
    std::vector<CloneDisk> disks;
    std::vector<CloneVolume> volumes;

    const CloneDisk *disk_at(const std::string &path) const;
    const CloneVolume *volume(const std::string &name) const;
};

// What cannot be written or is no whole clone information; the text says why.
struct CloneInformationError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The text of an information. Refuses words that the format cannot carry: empty ones, and such with
// blanks or control characters.
std::string to_text(const CloneInformation &information);

// The body of a text with the line that ends it.
std::string sealed(const std::string &body);

// The information of a text, which has to be complete and unchanged: an empty text, another format
// or version, a line that is missing, added or damaged is refused.
CloneInformation parse_clone_information(const std::string &text);

}  // namespace tessera
