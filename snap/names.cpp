// Block and raw names of one device, after the volume manager's conventions.
#include <cstring>

#include "snap/snap_internal.h"

namespace {

constexpr char manager_folder[] = "/dev/qz/";
constexpr size_t folder_length = sizeof manager_folder - 1;
constexpr size_t block_prefix_length = 11;  // "/dev/qz/dsk", "/dev/qz/dmp"
constexpr size_t raw_prefix_length = 12;    // "/dev/qz/rdsk", "/dev/qz/rdmp"

bool is_manager_block(const char *path) {
    return strncmp(path, "/dev/qz/dsk", block_prefix_length) == 0 ||
           strncmp(path, "/dev/qz/dmp", block_prefix_length) == 0;
}

bool is_manager_raw(const char *path) {
    return strncmp(path, "/dev/qz/rdsk", raw_prefix_length) == 0 ||
           strncmp(path, "/dev/qz/rdmp", raw_prefix_length) == 0;
}

}  // namespace

char *blocktoraw(const char *block, char *out, size_t size) {
    if (!is_manager_block(block)) {
        Q_strlcpy(out, block, size);
        return out;
    }
    Q_strlcpy(out, manager_folder, size);
    Q_strlcat(out, "r", size);
    Q_strlcat(out, block + folder_length, size);
    return out;
}

char *raw_to_block(const char *raw) {
    const size_t size = strlen(raw) + 1;
    char *block = static_cast<char *>(malloc(size));
    if (block == nullptr) {
        snap::diagnose("couldn't allocate %lu bytes for buffer of blkdev: %s", size, raw);
        return nullptr;
    }
    if (is_manager_raw(raw)) {
        Q_strlcpy(block, manager_folder, size);
        Q_strlcat(block, raw + folder_length + 1, size);
    } else {
        Q_strlcpy(block, raw, size);
    }
    return block;
}
