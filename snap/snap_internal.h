// What the sources of this module share. Nothing here leaves the library.
#pragma once

#include <mntent.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "snap/snap.h"
#include "tessera_host.h"

// Hands err_msg to the sink, when one is set with a descriptor of 0 or more. With the newline flag
// a newline is appended to err_msg itself; a full message loses its last character for it.
void print_err();
// Runs "command argument" in the shell and returns its status as system(3) gives it: -1 when it
// could not be run, which includes a line of more than 1023 characters. A status other than 0 is
// reported with the line and the error number.
int system_cmd(const char *command, const char *argument);

// The descriptor of the file system that locksnap has frozen, open until unlocksnap; -1 for none.
extern int32_t qz_fd;

namespace snap {

inline constexpr char mount_table[] = "/etc/mtab";
inline constexpr char volume_set_tool[] = "/usr/sbin/qzvset";
inline constexpr char lock_command[] = "/usr/sbin/lockfs -w ";    // a blank belongs to it, and
inline constexpr char unlock_command[] = "/usr/sbin/lockfs -u ";  // another one follows

inline constexpr size_t name_size = 1024;  // devices and directories
inline constexpr size_t type_size = 64;

// Formats a line into err_msg and hands it out.
void diagnose(const char *format, ...) __attribute__((format(printf, 1, 2)));

// A text for a message.
inline const char *shown(const char *text) {
    return text != nullptr ? text : "(null)";
}

struct Free {
    void operator()(void *block) const { free(block); }
};
using OwnedText = std::unique_ptr<char, Free>;

// When the last freeze by locksnap was asked for and when it had succeeded: for whoever looks into
// a core to find out how much of the freeze's five seconds was left.
extern timespec freeze_asked, freeze_done;

}  // namespace snap
