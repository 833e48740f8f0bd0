// What an object's record and its device records hold, as the process that loads the method sees
// it.
#pragma once

#include <string>
#include <vector>

#include "include/records.h"

// A line NAME=VALUE for each field, of each device in turn with "pm." before the name; last the
// number of devices.
std::vector<std::string> fields_of(const hdef &h);
