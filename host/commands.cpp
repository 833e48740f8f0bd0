// Mount, unmount and check with the host's own programs.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/held_write.h"
#include "host/mounts.h"
#include "host/owners.h"
#include "host/program.h"
#include "tessera_host.h"

namespace {

using tessera::Mounted;

// Exit statuses as the programs themselves define them.
constexpr int usage_error = 1;       // mount, umount: incorrect invocation
constexpr int system_error = 2;      // mount
constexpr int mount_failure = 32;    // mount
constexpr int errors_corrected = 1;  // fsck
constexpr int check_failure = 8;     // fsck: operational error
constexpr int check_usage_error = 16;

constexpr size_t message_size = 3 * tessera::directory_size;
constexpr int failed = 1;

// The programs take a name that does not begin with "/" for an option, a label or a UUID.
bool is_device_path(const char *path) {
    return path != nullptr && path[0] == '/';
}

bool has_text(const char *text) {
    return text != nullptr && text[0] != '\0';
}

// Writes a line where the program would have written its own.
void say(const Q_sys_cmd_exec_options &options, const char *line) {
    if (options.err_fd >= 0) tessera::write_line(options.err_fd, line);
}

// Runs the program on a record that the caller may have left out, and stores the exit status.
int run(const char *const *arguments, Q_sys_cmd_exec_options *options) {
    Q_sys_cmd_exec_options standard;
    Q_sys_cmd_exec_options_init(&standard);
    if (options == nullptr) options = &standard;
    options->exit_status = tessera::run_program(arguments, *options);
    return options->exit_status;
}

// Ends a call without running anything, as the program would end.
int refuse(Q_sys_cmd_exec_options *options, int exit_status, const char *line) {
    if (options != nullptr) {
        options->exit_status = exit_status;
        say(*options, line);
    }
    return failed;
}

// Somebody holds the device for itself: a mount, also one that this process cannot see.
bool is_held(const char *device) {
    const tessera::Descriptor exclusive(open(device, O_RDONLY | O_EXCL | O_CLOEXEC));
    return exclusive.get() < 0 && errno == EBUSY;
}

}  // namespace

void Q_sys_cmd_exec_options_init(Q_sys_cmd_exec_options *options) {
    *options = {-1, -1, 0};
}

int Q_mount(const char *block, const char *dir, const char *fstype, int flags,
            Q_sys_cmd_exec_options *options) {
    if (!is_device_path(block) || !has_text(dir) || flags != 0) {
        return refuse(options, usage_error, "mount: bad usage\n");
    }
    dev_t device = 0;
    char found[tessera::directory_size];
    if (tessera::block_device_number(block, &device)) {
        const Mounted where = tessera::find_mount(device, dir, found);
        if (where == Mounted::here) {
            if (options != nullptr) options->exit_status = 0;
            return 0;
        }
        // The kernel would mount the device a second time; a copy that is mounted elsewhere is in
        // somebody's use, and whoever ends that use would not know of this one.
        char line[message_size];
        if (where == Mounted::unknown) {
            Q_snprintf(line, sizeof line, "mount: %s: cannot tell whether %s is mounted.\n", dir,
                       block);
            return refuse(options, system_error, line);
        }
        if (where == Mounted::elsewhere) {
            Q_snprintf(line, sizeof line, "mount: %s: %s already mounted on %s.\n", dir, block,
                       found);
            return refuse(options, mount_failure, line);
        }
    }
    const char *arguments[10] = {"mount"};
    size_t count = 1;
    if (has_text(fstype)) {
        arguments[count++] = "-t";
        arguments[count++] = fstype;
        // An xfs carries the identifier of the one it was copied from, and the kernel takes no two
        // of the same identifier without this option.
        if (strcmp(fstype, "xfs") == 0) {
            arguments[count++] = "-o";
            arguments[count++] = "nouuid";
        }
    }
    arguments[count++] = "--";
    arguments[count++] = block;
    arguments[count++] = dir;
    return run(arguments, options) == 0 ? 0 : failed;
}

int Q_umount(const char *dir, int flags, Q_sys_cmd_exec_options *options) {
    if (!has_text(dir) || flags != 0) return refuse(options, usage_error, "umount: bad usage\n");
    const char *const arguments[] = {"umount", "--", dir, nullptr};
    return run(arguments, options) == 0 ? 0 : failed;
}

int Q_fsck(const char *device, const char *fstype, int flags, Q_sys_cmd_exec_options *options) {
    if (!is_device_path(device) || flags != 0) {
        return refuse(options, check_usage_error, "fsck: bad usage\n");
    }
    dev_t number = 0;
    // Not every checker looks for itself: the one of xfs finds every device clean.
    if (tessera::block_device_number(device, &number)) {
        char found[tessera::directory_size];
        const Mounted where = tessera::find_mount(number, nullptr, found);
        char line[message_size];
        if (where == Mounted::unknown) {
            Q_snprintf(line, sizeof line, "fsck: cannot tell whether %s is mounted.\n", device);
            return refuse(options, check_failure, line);
        }
        if (where == Mounted::elsewhere || is_held(device)) {
            Q_snprintf(line, sizeof line, "fsck: %s is mounted or in use.\n", device);
            return refuse(options, check_failure, line);
        }
    }
    // No title; repairs that need no answer are made, everything else fails.
    const char *arguments[8] = {"fsck", "-T"};
    size_t count = 2;
    if (has_text(fstype)) {
        arguments[count++] = "-t";
        arguments[count++] = fstype;
    }
    arguments[count++] = "-p";
    arguments[count++] = device;
    const int exit_status = run(arguments, options);
    return exit_status == 0 || exit_status == errors_corrected ? 0 : failed;
}
