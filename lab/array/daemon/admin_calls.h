// What the administrator asks: one JSON object a line, {"command": ..., arguments}, answered by one
// line {"ok": true, ...} or {"ok": false, "code": ..., "error": ...}.
#pragma once

#include <string>

#include "lab/array/daemon/engine.h"

namespace lab {

std::string answer_admin(Engine *engine, const std::string &line);

}  // namespace lab
