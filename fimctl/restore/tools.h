// The host's commands that a restore needs beside the method: to look at disk groups, and to bring
// back what a failed restore has taken away.
#pragma once

#include <string>

#include "fimctl/tool.h"

namespace fimctl {

bool is_imported(const std::string &group);
// Clears the mark of another host: the group was this host's until the restore deported it. Tries
// again once the volume manager's daemon has been enabled, then starts the volumes. A group that
// is not found is looked for under the name of its copy: that is what the mirrors of a backup host
// carry that never gave them back, and after a restore the primaries.
ToolResult import_group(const std::string &group, const std::string &clone);
ToolResult deport_group(const std::string &group);
// Makes a disk that is known the one that an import takes, of those with the same identity.
void put_disk_online(const std::string &raw);

ToolResult check_file_system(const std::string &block, const std::string &type);
// options: of the mount, "" for none.
ToolResult mount_file_system(const std::string &block, const std::string &directory,
                             const std::string &type, const std::string &options);
// Gives a mount that is there the options that it had.
ToolResult set_mount_options(const std::string &directory, const std::string &options);
ToolResult unmount(const std::string &directory);

}  // namespace fimctl
