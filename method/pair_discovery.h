// From a primary device to the BCV that mirrors it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "include/records.h"

// Learns the BCV of a primary from the array, takes the array lock, establishes the pair when that
// is asked for, finds the BCV's host path and enrols the pair in primmirlist. The caller has filled
// dev_raw_device, dev_block_device and p_dev_raw_device. With query_only set it stops once the
// BCV's paths are known. Returns 0, 11 after a report, or the result of a called step. A lock that
// was taken stays taken on every return (lock_set says so).
int32_t find_bcv_pair(hdef *h, prim_mir_info *pm, int32_t query_only);
// 1 when the device can be opened for reading, 0 otherwise.
int32_t isPathActive(const char *path);
// The block device of a raw device, written into out; null when there was no memory.
char *rawtoblock(const char *raw, char *out, size_t size);
