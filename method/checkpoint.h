// The fields of the records under their checkpoint keys, shared by both directions: what is written
// and what is read back agree because one table serves both.
#pragma once

#include <cstdint>

#include "convert/convert.h"
#include "include/records.h"

// Registers the object's keys; for a freshly frozen volume it also runs the disk group's clone
// step, once per group. Returns 0 or the failing step's status.
int32_t build_table_hdef(convert_table *table, hdef *h);
// Registers the nine keys of one device record. Returns 0.
int32_t build_table_pminfo(convert_table *table, prim_mir_info *pm, convert_function conv_func);
