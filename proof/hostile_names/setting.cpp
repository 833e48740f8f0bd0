#include "proof/hostile_names/setting.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "proof/hostile_names/root.h"

namespace hostile {
namespace {

// As the kernel writes a text into the mount table.
std::string in_mount_table(const std::string &text) {
    std::string coded;
    for (const char c : text) {
        if (c == ' ') {
            coded += "\\040";
        } else if (c == '\t') {
            coded += "\\011";
        } else if (c == '\n') {
            coded += "\\012";
        } else if (c == '\\') {
            coded += "\\134";
        } else {
            coded += c;
        }
    }
    return coded;
}

std::string raw_twin(const std::string &block) {
    for (const char *kind : {"dsk", "dmp"}) {
        const std::string prefix = std::string("/dev/qz/") + kind;
        if (block.starts_with(prefix)) {
            return std::string("/dev/qz/r") + kind + block.substr(prefix.size());
        }
    }
    return block;
}

void answer(const char *tool, const std::string &text) {
    make_file(std::string("/proof/answers/") + tool, text);
}

}  // namespace

void put_on_volume(Setting *setting, const std::string &group, const std::string &volume) {
    setting->device = "/dev/qz/dsk/" + group + "/" + volume;
}

void set_up(const Setting &setting) {
    if (sethostname(setting.host.c_str(), setting.host.size()) != 0) {
        throw std::runtime_error("cannot set the host's name");
    }
    answer("tqtpcinfo", "EMC SYMMETRIX p=" + setting.device_path + " s=" + setting.serial + "\n");
    answer("tqdgclone", setting.listed_device + "\n");
    answer("qzvset.sets", "NAME\n" + setting.set + "\n");
    answer("qzvset", "NAME\n" + setting.component + "\n");
    unlink("/etc/mtab");
    make_file("/etc/mtab", in_mount_table(setting.device) + " / " + in_mount_table(setting.fstype) +
                               " rw 0 0\n");
    make_file("/usr/quill/tessera/tq.conf", setting.host_entries);
    for (const std::string &device :
         {setting.device, raw_twin(setting.device), setting.array.bcv_path, setting.array.port,
          setting.stale, std::string("/dev/qz/dsk/datadg/vol1")}) {
        if (!device.empty()) make_file(device);
    }
    // A block device that is not there cannot be mounted.
    const auto block = setting.values.find("HDEF-dev_block_device");
    if (block != setting.values.end()) make_file(block->second.substr(0, block->second.find('\n')));
    struct stat is = {};
    if (stat(setting.source.c_str(), &is) != 0) make_folder(setting.source);
    make_folder(setting.mount_point);
    if (setting.temporary_folder.empty()) return;
    make_folder(setting.temporary_folder);
    setenv("TMPDIR", setting.temporary_folder.c_str(), 1);
}

}  // namespace hostile
