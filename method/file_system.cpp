#include "method/file_system.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "method/capture.h"
#include "method/report.h"

namespace tf {

bool path_exists(const char *path) {
    if (access(path, F_OK) == 0) return true;
    return errno != ENOENT && errno != ENOTDIR && errno != ELOOP && errno != ENAMETOOLONG;
}

int32_t check_file_system(const hdef *h, const char *reporter, const char *device,
                          const char *fstype) {
    CapturedOutput output(h);
    const int status = Q_fsck(device, fstype, 0, output.options());
    if (status == 0) return success;
    const int exit_status = output.exit_status();
    const int32_t result = fail(ErrorNumber::operation, msg::fsck_failed, reporter, device, fstype,
                                status, exit_status, strerror(exit_status));
    output.dump();
    return result;
}

int32_t mount_file_system(const hdef *h, const char *reporter, const char *block, const char *dir,
                          const char *fstype) {
    CapturedOutput output(h);
    const int status = Q_mount(block, dir, fstype, 0, output.options());
    if (status == 0) return success;
    const int exit_status = output.exit_status();
    const int32_t result = fail(ErrorNumber::operation, msg::mount_failed, reporter, status,
                                exit_status, strerror(exit_status));
    output.dump();
    return result;
}

int32_t unmount_file_system(const hdef *h, const char *dir) {
    CapturedOutput output(h);
    return Q_umount(dir, 0, output.options()) == 0 ? success : failure;
}

}  // namespace tf
