// What the host product's device-information tool says of one device.
#pragma once

#include <cstdint>

#include "include/records.h"

struct device_info {
    char devpath[1024];  // key "p"
    char serial[256];    // key "s"; names the array's counter file
    int32_t reserved;    // 0
};

// Runs the tool for one device. The result comes from malloc and the caller frees it; null after a
// report.
device_info *find_device(const hdef *h, const char *device);
