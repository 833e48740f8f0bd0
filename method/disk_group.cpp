#include "method/disk_group.h"

#include "method/command.h"
#include "method/paths.h"

namespace tf {
namespace {

int32_t try_import(const hdef *h, const char *group, const char *new_name) {
    if (new_name == nullptr) {
        return run_tool(h, "%s -C import %s", path::disk_group_tool, group);
    }
    return run_tool(h, "%s -C -n %s import %s", path::disk_group_tool, new_name, group);
}

}  // namespace

int32_t import_disk_group(const hdef *h, const char *group, const char *new_name) {
    if (try_import(h, group, new_name) == 0) return 0;
    // A daemon that sleeps knows nothing of disks that have just appeared.
    static_cast<void>(do_cmd(h, "%s enable", path::daemon_tool));
    return try_import(h, group, new_name);
}

int32_t start_volumes(const hdef *h, const char *group) {
    return run_tool(h, "%s -g %s startall", path::volume_tool, group);
}

}  // namespace tf
