// What `fimctl locks` prints.
#pragma once

#include <string>
#include <vector>

#include "fimctl/inspect/lock_files.h"

namespace fimctl {

std::string lock_report(const HostLock &host, const std::vector<CounterFile> &counters, bool json);

}  // namespace fimctl
