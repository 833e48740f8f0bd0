#include "method/device_path.h"

#include <cstring>

#include "method/log.h"
#include "method/pair_discovery.h"
#include "method/paths.h"
#include "method/text.h"

namespace tf {

bool is_usable_native_path(const char *path) {
    return strstr(path, path::native_disk) != nullptr && isPathActive(path) != 0;
}

const char *usable_port(const SymDevice &device) {
    for (int32_t i = 0; i < device.port_count; ++i) {
        const char *const port = device.ports[i];
        if (port[0] == '\0') continue;
        log_trace("\talternate port=%s", port);
        if (is_usable_native_path(port)) return port;
    }
    return nullptr;
}

void prefer_disk_node(SymDevice *device) {
    if (strstr(device->pdevname, path::raw_multipath_disk) == nullptr) return;
    const char *const disk = strchr(device->pdevname, 's');
    if (disk == nullptr) return;
    char name[SYM_PDEV_SIZE];
    put_format(name, "/dev/%s", disk);
    put(device->pdevname, name);
}

}  // namespace tf
