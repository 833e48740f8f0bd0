// From the paths to the devices below them, as the method walks: mount table, raw and block names,
// the volume manager's lists.
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>

#include "fimctl/array_session.h"
#include "fimctl/command.h"
#include "fimctl/inspect/host_service.h"
#include "fimctl/inspect/plan.h"
#include "fimctl/inspect/private_folder.h"
#include "fimctl/paths.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

// Names of up to this length the method takes for plain disks below /dev, and refuses.
constexpr size_t longest_refused = 12;

bool starts(const std::string &text, const std::string &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string raw_of(const std::string &block) {
    if (!starts(block, "/dev/qz/dsk") && !starts(block, "/dev/qz/dmp")) return block;
    return "/dev/qz/r" + block.substr(strlen("/dev/qz/"));
}

std::string block_of(const std::string &raw) {
    if (!starts(raw, "/dev/qz/rdsk") && !starts(raw, "/dev/qz/rdmp")) return raw;
    return "/dev/qz/" + raw.substr(strlen("/dev/qz/r"));
}

std::string without_double_slashes(const std::string &path) {
    std::string plain;
    for (const char c : path) {
        if (c != '/' || plain.empty() || plain.back() != '/') plain += c;
    }
    return plain;
}

// What the mount table says of a device number: the last entry holds. False when none does.
bool find_mounted(dev_t device, std::string &name, std::string &type) {
    const std::unique_ptr<FILE, decltype(&endmntent)> table(
        setmntent(path::method_mount_table, "re"), endmntent);
    bool found = false;
    while (const struct mntent *entry = table ? getmntent(table.get()) : nullptr) {
        const std::string kind = entry->mnt_type;
        struct stat status = {};
        if (kind == "autofs" || kind == "lofs" || kind == "nfs") continue;
        if (stat(entry->mnt_dir, &status) != 0 || status.st_dev != device) continue;
        name = without_double_slashes(entry->mnt_fsname);
        type = kind;
        found = true;
    }
    return found;
}

void name_devices(PlannedObject &object, Plan &plan) {
    const Source &source = object.source;
    if (source.kind == SourceKind::raw_device) {
        object.raw = source.path;
        object.block = block_of(source.path);
    } else if (source.kind == SourceKind::block_device) {
        object.block = source.path;
        object.raw = raw_of(source.path);
    } else if (find_mounted(source.device, object.block, object.type)) {
        object.raw = raw_of(object.block);
    } else {
        plan.problem(std::string(path::method_mount_table) + " does not list the file system of " +
                         source.path,
                     std::string("ln -sf ../proc/self/mounts ") + path::method_mount_table);
    }
}

// Disk group and volume: the first two names that are not empty.
void split_volume(PlannedObject &object, Plan &plan) {
    std::vector<std::string> names;
    std::string name;
    for (const char c : object.block.substr(strlen(path::volume_folder)) + "/") {
        if (c != '/') {
            name += c;
        } else if (!name.empty()) {
            names.push_back(name);
            name.clear();
        }
    }
    if (names.size() < 2) {
        plan.problem(object.block + " names no volume", "name a volume of a disk group");
        return;
    }
    object.group = names[0];
    object.volume = names[1];
}

void classify(PlannedObject &object, Plan &plan) {
    name_devices(object, plan);
    if (object.block.empty()) return;
    if (object.block.front() != '/') {
        plan.problem(object.source.path + " lies on no device (" + object.block + ")",
                     "name a path on a disk of the array");
    } else if (object.block.size() <= longest_refused) {
        plan.problem("the method refuses the short device name " + object.block,
                     "use the device through the volume manager's names, below /dev/qz/dmp");
    } else if (starts(object.block, path::volume_folder)) {
        split_volume(object, plan);
    } else {
        PlannedPair pair;
        pair.raw = object.raw;
        object.pairs.push_back(std::move(pair));
    }
}

Message ask_about_import(const std::string &method, const std::string &client) {
    const HostService service(method);
    Message facts = {{"answers", service.answers()}};
    facts["local"] = service.is_local(client);
    for (const std::string key : {"dgimport", "no_dgimport"}) {
        facts[key] = service.has_entry(key) || service.has_entry(key + "_" + client);
    }
    return facts;
}

// Only volumes are imported, and only when another host backs them up.
void decide_import(const Settings &settings, Plan &plan) {
    bool volumes = false;
    for (const PlannedObject &object : plan.objects) volumes = volumes || object.is_volume();
    const std::string &client = plan.config.client;
    if (!volumes) {
        plan.import_reason = "no path is on a volume";
    } else if (client.empty()) {
        plan.import_reason = "the configuration names no alternate_backup_client";
    }
    if (!plan.import_reason.empty()) return;
    Message facts;
    try {
        facts =
            read_elsewhere(Step::load, [&] { return ask_about_import(settings.method, client); });
    } catch (const Failure &failure) {
        facts = {{"answers", false}};
    }
    if (!facts.at("answers").get<bool>()) {
        plan.import_reason = "not known: the host library cannot be asked";
        plan.problem("the host library cannot be asked", "fimctl doctor");
    } else if (facts.at("local").get<bool>()) {
        plan.import_reason = client + " is this host";
    } else if (facts.at("no_dgimport").get<bool>()) {
        plan.import_reason = "the host's configuration has no_dgimport for " + client;
    } else if (facts.at("dgimport").get<bool>()) {
        plan.import = true;
        plan.import_reason = "the host's configuration has dgimport for " + client;
    } else {
        plan.import_reason = "the host's configuration has no entry for " + client;
    }
}

std::vector<std::string> clone_tool_line(const PlannedObject &object, const Plan &plan,
                                         const std::string &file) {
    std::vector<std::string> words = {path::clone_tool, "-g", object.group};
    if (!plan.import) words.insert(words.end(), {"-n", object.volume});
    words.insert(words.end(), {"-f", file, "-p", plan.config.plex});
    return words;
}

// The clone tool's listing only reads; it wants a file to write it to.
void list_volume(PlannedObject &object, const PrivateFolder &folder, Plan &plan) {
    const std::string file = folder.file("devices");
    unlink(file.c_str());
    const ToolResult said = run_tool(clone_tool_line(object, plan, file));
    if (!said.good()) {
        plan.problem("the devices of volume " + object.volume + " of " + object.group +
                         " cannot be known: " + said.reason(),
                     "see that the disk group is imported on this host: qzdg list");
        return;
    }
    std::ifstream list(file);
    for (std::string line; std::getline(list, line);) {
        PlannedPair pair;
        pair.raw = line;
        object.pairs.push_back(std::move(pair));
    }
    if (object.pairs.empty()) {
        plan.problem(
            "no devices are associated with volume " + object.volume,
            "see that the volume is there: qzvol -g " + shell_word(object.group) + " list");
    }
}

void list_volumes(Plan &plan) {
    std::unique_ptr<PrivateFolder> folder;
    for (size_t i = 0; i < plan.objects.size(); ++i) {
        PlannedObject &object = plan.objects[i];
        if (!object.is_volume()) continue;
        for (size_t k = 0; k < i && plan.import; ++k) {
            if (plan.objects[k].group != object.group) continue;
            object.covered_by = static_cast<int>(k);
            break;
        }
        if (object.covered_by != covered_by_none) continue;
        if (!can_be_run(path::clone_tool)) {
            plan.problem(std::string(path::clone_tool) + " is missing: the devices of " +
                             object.source.path + " cannot be known",
                         "install it");
            continue;
        }
        if (folder == nullptr) folder = std::make_unique<PrivateFolder>();
        list_volume(object, *folder, plan);
    }
}

}  // namespace

void find_devices(const Settings &settings, Plan &plan) {
    for (PlannedObject &object : plan.objects) classify(object, plan);
    decide_import(settings, plan);
    list_volumes(plan);
}

}  // namespace fimctl
