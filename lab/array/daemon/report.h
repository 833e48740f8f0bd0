// The whole array as JSON, for the administrator's table and for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "lab/array/daemon/engine.h"

namespace lab {

nlohmann::json report(Engine &engine);

}  // namespace lab
