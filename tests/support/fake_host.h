// A fake of the host library's commands, names and configuration: answers as told, remembers what
// it was asked. Its messages and text functions are the real ones.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tessera_host.h"

namespace test {

struct FakeHost {
    // One line per call, e.g. "mount /dev/b /mnt ext4 0", "umount /mnt 0", "fsck /dev/r ext4 0".
    std::vector<std::string> calls;
    // Results of the commands, and the exit status they store.
    int mount_result = 0, umount_result = 0, fsck_result = 0;
    int mount_exit = 0, umount_exit = 0, fsck_exit = 0;
    // Called inside each command with its line: to look at the descriptors, to write output.
    std::function<void(const std::string &, const Q_sys_cmd_exec_options &)> on_command;

    // Records that were made ready for a command.
    int fresh_records = 0;

    std::string host_name = "client1.example.com";
    int host_name_result = 0;
    std::vector<std::string> local_hosts = {"client1"};
    // Configuration entries that are present.
    std::map<std::string, std::string> entries;
    // Keys that were looked up, in order, as "ROOT KEY".
    std::vector<std::string> looked_up;
};

// The one fake of this process.
FakeHost &fake_host();

}  // namespace test
