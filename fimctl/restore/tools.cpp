#include "fimctl/restore/tools.h"

#include <vector>

#include "fimctl/log.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

constexpr int errors_corrected = 1;  // fsck's word for "it is good now"

// A restore is not to be hit half-way through an import or a mount.
ToolResult run(const std::vector<std::string> &words) {
    return run_tool(words, Reach::nobody);
}

}  // namespace

bool is_imported(const std::string &group) {
    return run({path::disk_group_tool, "list", group}).good();
}

ToolResult import_group(const std::string &group, const std::string &clone) {
    log::progress("import disk group " + group);
    const std::vector<std::string> import = {path::disk_group_tool, "-C", "import", group};
    ToolResult result = run(import);
    if (!result.good()) {
        run({path::daemon_tool, "enable"});
        result = run(import);
    }
    if (!result.good() &&
        !run({path::disk_group_tool, "-C", "-n", group, "import", clone}).good()) {
        return result;
    }
    return run({path::volume_tool, "-g", group, "startall"});
}

ToolResult deport_group(const std::string &group) {
    return run({path::disk_group_tool, "deport", group});
}

void put_disk_online(const std::string &raw) {
    for (const std::string folder : {"/dev/qz/rdmp/", "/dev/qz/dmp/", "/dev/rdsk/", "/dev/"}) {
        if (raw.compare(0, folder.size(), folder) != 0) continue;
        run({path::disk_tool, "online", raw.substr(folder.size())});
        return;
    }
}

ToolResult check_file_system(const std::string &block, const std::string &type) {
    log::progress("check " + block);
    ToolResult result = run({"fsck", "-T", "-t", type, "-p", block});
    if (result.status == errors_corrected) result.status = 0;
    return result;
}

ToolResult mount_file_system(const std::string &block, const std::string &directory,
                             const std::string &type, const std::string &options) {
    log::progress("mount " + directory);
    std::vector<std::string> words = {"mount", "-t", type};
    // The mirror beside it may carry the same identifier, and the kernel takes no two of one.
    std::string all = type == "xfs" ? "nouuid" : "";
    if (!options.empty()) all += (all.empty() ? "" : ",") + options;
    if (!all.empty()) words.insert(words.end(), {"-o", all});
    words.insert(words.end(), {"--", block, directory});
    return run(words);
}

ToolResult set_mount_options(const std::string &directory, const std::string &options) {
    return run({"mount", "-o", "remount,bind," + options, "--", directory});
}

ToolResult unmount(const std::string &directory) {
    return run({"umount", "--", directory});
}

}  // namespace fimctl
