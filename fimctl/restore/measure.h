// How much a restore changes: the array does not tell, so mirror and primary are compared.
#pragma once

#include "fimctl/restore/plan.h"

namespace fimctl {

// Fills in what differs, for each pair of which this host sees both devices. Reads both of them
// from end to end, past every cache. Throws Failure (interrupted).
void measure(RestorePlan &plan);

}  // namespace fimctl
