// Whether the mirrors of a snapshot still hold its copy.
//
// Nobody stops the array's own tools, or another host, from establishing a mirror again: from then
// on it follows its primary, and the copy is gone while every file of this host says that it is
// good.
#pragma once

#include "fimctl/catalogue.h"

namespace fimctl {

// Throws Failure (usage) when a pair of the snapshot is not split any more, and marks the copy void
// with the pairs as the reason. Where the array does not answer, or does not know a pair, nothing
// speaks against the copy. A mirror that was established and split again looks like one that was
// never touched: the array keeps no word of it.
void refuse_lost(Catalogue &catalogue, const SnapshotRecord &snapshot);

}  // namespace fimctl
