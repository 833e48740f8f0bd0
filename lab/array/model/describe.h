// A device as the array interface's record shows it to one host.
#pragma once

#include "include/symapi.h"
#include "lab/array/model/world.h"

namespace lab {

SymDevice describe(const World &world, const Device &device, const std::string &host);
// The release in words, for instance "V5.0-0".
std::string version_text(uint32_t version);

}  // namespace lab
