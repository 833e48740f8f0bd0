// In which order the objects of a restore are rebuilt and ended.
//
// The method unmounts each file system when its object is ended, and does everything else with the
// last call: it walks the groups, newest first, and their objects, newest first; it checks each
// file system with the type of the last call's object, and mounts the last call's object each time.
// So the last call's object must be a file system, must be the first one of the walk (a later one
// would be checked while it is mounted), and must have a type whose check fits the others.
#pragma once

#include <string>
#include <vector>

#include "fimctl/restore/plan.h"

namespace fimctl {

// Sorts plan.objects into the order of their ends, a file system before the one it is mounted on,
// and fills plan.rebuild_order. Adds an obstacle where no order works.
void order_objects(RestorePlan &plan);

// Whether a check of one type of file system is a real check of another type.
bool is_checked_as(const std::string &type, const std::string &checked);

}  // namespace fimctl
