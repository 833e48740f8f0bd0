// What holds for every command, whoever said it: the command line, the environment, the
// configuration file, or nobody.
#pragma once

#include <string>
#include <vector>

#include "fimctl/cycle.h"
#include "fimctl/log.h"

namespace fimctl {

struct Common {
    Settings settings;
    log::Settings log;
    std::vector<std::string> trailing;  // behind "--"
};

}  // namespace fimctl
