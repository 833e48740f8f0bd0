// A snapshot's way to the backup host and back.
//
// On the primary: export (away) -> import of what comes back (returned). On the backup host: import
// (frozen, in its own catalogue) -> mount, release -> export. While it is away, the primary neither
// mounts nor releases nor restores it.
#pragma once

#include <cstdint>
#include <string>

#include "fimctl/catalogue.h"
#include "fimctl/cycle.h"

namespace fimctl {

// Marks a snapshot as handed to the other host and gives hand_over the document; when that throws,
// the snapshot is as it was. again: also one that was handed out before and has not come back; the
// earlier document's return will be refused. Throws Failure.
void export_snapshot(const Settings &settings, Catalogue &catalogue, int64_t id, bool again,
                     const std::function<void(const std::string &)> &hand_over);

// Takes a document in: on the backup host as a new snapshot, on the primary as the return of one of
// its own. Returns the snapshot's number here. Throws Failure.
int64_t import_snapshot(const Settings &settings, Catalogue &catalogue, const std::string &text);

}  // namespace fimctl
