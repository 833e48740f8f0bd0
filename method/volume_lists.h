// The texts that the volume manager's and the clone tool's command lines take.
#pragma once

#include <cstdint>

#include "include/records.h"

// Fills h->clone_group: the disk group's name, with the primary host before it when with_host is
// set, cut after 25 characters, and "_clone".
void create_clone_group_name(hdef *h, int32_t with_host);
// The volumes of a disk group, newest first, separated by commas. *out comes from malloc. Returns
// 0, or 11 after a report.
int32_t get_dg_vols(const dg_entry *dg, char **out);
// The pairs of a disk group as "primary,bcv:primary,bcv". *out comes from malloc; it is the empty
// text for a group without members. Returns 0, or 11 after a report.
int32_t form_device_list(const dg_entry *dg, char **out);
