// What stands against a restore. Everything is looked for before anything is done: after the first
// step file systems are away, and a refusal then costs somebody's service.
#pragma once

#include <vector>

#include "fimctl/restore/plan.h"

namespace fimctl {

// Throws Failure (usage) for a snapshot that no restore can come from, whatever the host is like.
void refuse_unfit(const SnapshotRecord &snapshot);

// Adds to plan.obstacles what is against the plan just now.
void find_obstacles(RestorePlan &plan, const SnapshotRecord &snapshot,
                    const std::vector<MountLine> &mounts, bool abandoned);

}  // namespace fimctl
