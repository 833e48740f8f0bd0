// The list operations on the records of include/records.h.
#pragma once

#include "include/records.h"
#include "include/symapi.h"

// The disk group of that name (exact comparison, newest first), or null.
dg_entry *dg_find(const char *dg_name);
// Enters an object in its disk group, making the group's entry when there is none. An object that
// is entered twice is listed twice. Returns 0, or 11 after a report (error number 1).
int32_t dg_insert(hdef *h);
// Orders two elements of an array of prim_mir_info pointers by array serial number; for qsort.
int primmircmp(const void *a, const void *b);
// Finds the entry of a BCV in a standard device's record. *out points into the record. Returns 0,
// or 11 after a report (error number 10).
int32_t find_bcv_info(const SymDevice *device, const char *bcv, const SymBcvInfo **out);

namespace tf {

// Logs one BCV entry in eight trace lines.
void log_bcv_info(const SymBcvInfo &info);
// Takes an object out of its disk group's member list: vol_count goes down when the object is a
// volume, and a group without members leaves DG_LIST. Nothing happens for an object not listed.
void dg_remove(const hdef *h);
// Frees a device list.
void free_devices(prim_mir_info *first);
// Frees an object's record with its device list and the names of its capture files.
void free_hdef(hdef *h);

}  // namespace tf
