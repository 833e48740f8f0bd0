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
// Takes an object out of its disk group's member list, wherever it stands there: vol_count goes
// down when the object is a volume. A group without members leaves DG_LIST, also one that dg_insert
// left behind when it could not enter the object. The record itself stays the caller's.
void dg_remove(const hdef *h);
// Frees a device list.
void free_devices(prim_mir_info *first);
// Frees an object's record with its device list and the names of its capture files.
void free_hdef(hdef *h);
// Frees everything that DG_LIST leads to and empties primmirlist; runs when the library is
// unloaded.
void free_all_records();

}  // namespace tf
