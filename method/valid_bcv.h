// Which of a standard device's BCVs this method may use.
#pragma once

#include <cstdint>

#include "include/symapi.h"

// Chooses among the device's entries; *chosen points into *device, or is null when there is no
// choice. *need_establish is 1 when the chosen pair still has to be established. *device is read
// anew when a wrongly associated BCV had to be released. Returns 0, or 11 after a report, with the
// choice made so far.
int32_t find_valid_bcv(SymDevice *device, const SymBcvInfo **chosen, int32_t *need_establish);
