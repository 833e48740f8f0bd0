// From a path to the mounted device that holds it, through the host's mount table.
//
// The table is read once per process into a cache keyed by device number, which is never refreshed.
// The first look-up answers with the last matching line of the table, every later one with the
// first: callers of one process rely on the cached answer staying the same.
#pragma once

#include <cstddef>
#include <cstdint>

// 0 until the mount table has been read into the cache, 1 from then on; back to 0 when a node of
// the cache could not be allocated or the table broke off, so that the next look-up reads the table
// again.
extern int32_t mnttab_cached;

// One entry of the cache; device numbers are unique. All entries are freed when the library is
// unloaded.
struct mnttab_node {
    uint64_t dev;     // st_dev of the mount directory
    char dir[1024];   // mount directory
    char name[1024];  // mounted device
    char type[1024];  // file-system type
    mnttab_node *next;
};
// Head of the cache, newest first.
extern mnttab_node *mnttab_cached_list;

// Answers from the cache: 1 found, 0 not. The three texts are cut to their buffers' sizes.
int32_t ol_devtomp_find(uint64_t dev, char *dir, size_t dir_size, char *name, size_t name_size,
                        char *type, size_t type_size);
// The mount of a device number: 0 found, 7 not in an existing cache (no message), 11 after a
// report.
int32_t emc_tf__devtomp(uint64_t dev, char *dir, size_t dir_size, char *name, size_t name_size,
                        char *type, size_t type_size);
// The device that holds path (or that path is), its file-system type and its mount directory.
// Returns 0, or 11 after a report.
int32_t emc_tf__find_mount_device(const char *path, char *device, size_t device_size, char *type,
                                  size_t type_size, char *dir, size_t dir_size);

namespace tf {

// Frees the cache, so that the next look-up reads the table again; runs when the library is
// unloaded.
void clear_mount_cache();

}  // namespace tf
