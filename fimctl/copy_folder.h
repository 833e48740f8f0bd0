// The directories on which copies are mounted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fimctl/catalogue.h"
#include "fimctl/source.h"

namespace fimctl {

struct Settings;

// Makes a folder, for root alone, and returns how many were made for it: itself and what was
// missing above it; 0 when it was there. Throws Failure (usage); then none is left.
int64_t make_folder(const std::string &folder);
// Takes away what was made for the objects, as far as it is empty.
void remove_made_folders(const std::vector<ObjectRecord> &objects);

// The directory of the copy of object number (from 0) of count, as --mount-at names it.
std::string mount_folder(const std::string &mount_at, size_t number, size_t count);

// Throws Failure (usage) unless a directory is missing or empty, and no mount point: what is there
// would be hidden by the copy. what: how the message names it; next: what to do about it.
void refuse_in_use(const std::string &what, const std::string &real, const std::string &next);
// The same of all that --mount-at names for the sources, and whatever else speaks against it.
void refuse_mount_at(const Settings &settings, const std::vector<Source> &sources);

// Throws Failure (usage) when the real name of a folder is the place of a copy of a snapshot that
// is not over: the release of either one would unmount whatever is mounted there. what: how the
// message names it.
void refuse_promised(const std::string &what, const std::string &real,
                     const std::vector<SnapshotRecord> &others);

}  // namespace fimctl
