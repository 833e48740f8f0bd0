// The kernel's mount table as this process sees it, asked by device number.
#pragma once

#include <sys/types.h>

namespace tessera {

enum class Mounted {
    nowhere,    // no mount of the device is visible
    here,       // what the directory shows is the device's own root
    elsewhere,  // it is mounted on another directory, or hidden below another mount on this one
    unknown     // the table cannot be read to its end
};

// A directory of the table is at most this long.
constexpr size_t directory_size = 4096;

// Where the block device with that number is mounted. dir may be null; then "here" is never
// answered. For "elsewhere" and "here" the directory found is copied into found.
Mounted find_mount(dev_t device, const char *dir, char (&found)[directory_size]);

// The number of the block device behind a path, following links; false when the path is none.
bool block_device_number(const char *path, dev_t *device);

}  // namespace tessera
