// What tqdgclone does with disk groups and their mirrors, one function a form of its command line.
// All throw qz::Error, or CloneInformationError, with one sentence for the administrator; nothing
// is changed then.
//
// A volume of the lab has one plex. Whatever name a call gives it stands for that one.
#pragma once

#include "lab/qzvm/region.h"
#include "lab/tessera/clone_information.h"
#include "lab/tessera/clone_options.h"

namespace tessera {

// Writes the raw paths of the disks of a group that is imported here, or of one volume of it, one a
// line.
void list_devices(const CloneOptions &options);

// Writes the clone information of a group that is imported here. The mirrors need not be seen.
void describe_copy(const CloneOptions &options);

// Makes the mirrors the disks of the clone group, imports it and starts its volumes, which are
// those that the call names. With an information the mirrors have to be those that it tells of. A
// copy that is up already, from the same mirrors, is no failure.
void bring_copy_up(const CloneOptions &options);

// Stops one volume of a clone group and takes it out of the group; with the last one the group is
// gone. A group or volume that is not there is told and is no failure, so that a release that broke
// off can be repeated. Refused while the volume is in use.
void clean_up(const CloneOptions &options);

// The pure half of bringing a copy up.
struct Mirror {
    DevicePair pair;
    qz::Region region;  // of the mirror
};
// The part of the mirrors' group that is copied: these volumes, on these disks.
qz::Group part_to_copy(const std::string &group, const std::vector<std::string> &volumes,
                       const std::vector<Mirror> &mirrors);
// Throws unless the information is of the group, host, primaries and volumes of this call.
void check_information(const CloneInformation &information, const CloneOptions &options);
// Throws unless it is of these mirrors, too, as they are before a copy is made of them.
void check_mirrors(const CloneInformation &information, const CloneOptions &options,
                   const std::vector<Mirror> &mirrors);
// Whether a group may be a clone of another one, judged by their names.
bool is_clone_name(const std::string &clone, const std::string &group);

}  // namespace tessera
