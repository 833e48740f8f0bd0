// The per-array counter files and the host-wide lock that serialises their updates.
//
// A counter file holds three 32-bit integers in host byte order: the owner's process id, the number
// of records it has locked, and a flag that is 0 only until the first update. One live process at a
// time owns an array; another that meets a live owner fails at once.
#pragma once

#include <cstdint>

#include "include/records.h"

// Modes of manage_lock; change_counter takes any other value than 0 for a decrement.
enum { TF_LOCK_SET = 0, TF_LOCK_CLEAR = 1 };

// Takes the host-wide lock (waiting for it) and opens the counter file. Returns its descriptor with
// the locked descriptor in *lock_fd, both for the caller to close, or -1 with nothing open.
int open_lock_file(const char *path, int *lock_fd);
// Adds or takes one in an open counter file and stores the flag it held in pm->issplit; a count of
// 0 removes the file. Returns 0 or -1.
int change_counter(prim_mir_info *pm, int fd, int mode);
// Sets (TF_LOCK_SET) or clears (TF_LOCK_CLEAR) the array lock of one record. Returns 0 or -1; any
// other mode is -1 without a word.
int manage_lock(const hdef *h, prim_mir_info *pm, int mode);
