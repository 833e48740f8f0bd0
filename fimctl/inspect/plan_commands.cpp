// The commands that a planned snapshot would run on this host: of the method, and of the host
// library that it is linked to.
#include <unistd.h>

#include <algorithm>
#include <set>

#include "fimctl/disk_group.h"
#include "fimctl/host.h"
#include "fimctl/inspect/plan.h"
#include "fimctl/paths.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

using Words = std::vector<std::string>;

// What only a snapshot will know.
constexpr char later_file[] = "FILE";
constexpr char unknown_bcv[] = "BCV";
constexpr char unseen[] = "/dev/sdX";

class Commands {
  public:
    Commands(const Settings &settings, Plan &plan)
        : settings_(settings), plan_(plan), host_(short_host_name()) {}

    void find() {
        for (size_t i = 0; i < plan_.objects.size(); ++i) {
            const PlannedObject &object = plan_.objects[i];
            // Of what cannot be frozen nothing more is known.
            if (object.pairs.empty() && object.covered_by == covered_by_none) continue;
            freeze(object);
            mount(object, i);
            release(object, i);
        }
    }

  private:
    static void add(std::vector<std::string> &lines, const Words &words) {
        lines.push_back(command_line(words));
    }

    void freeze(const PlannedObject &object) {
        if (object.is_volume() && object.covered_by == covered_by_none) {
            Words words = {path::clone_tool, "-g", object.group};
            if (!plan_.import) words.insert(words.end(), {"-n", object.volume});
            words.insert(words.end(), {"-f", later_file, "-p", plan_.config.plex});
            add(plan_.freeze_commands, words);
        }
        for (const PlannedPair &pair : object.pairs) {
            add(plan_.freeze_commands,
                {path::device_information_tool, "-f", "-p", pair.raw, "-o", "-"});
        }
        if (!object.is_volume() || plan_.import || !checkpointed_.insert(object.group).second)
            return;
        add(plan_.freeze_commands,
            {path::clone_tool, "-g", object.group, "-n", volumes_of(object.group), "-d",
             devices_of(object.group), "-i", later_file, "-p", plan_.config.plex});
    }

    // The names and pairs of a group stand newest object first, as the method keeps them.
    std::string volumes_of(const std::string &group) const {
        std::string text;
        for (auto object = plan_.objects.rbegin(); object != plan_.objects.rend(); ++object) {
            if (object->group == group) text += (text.empty() ? "" : ",") + object->volume;
        }
        return text;
    }

    std::string devices_of(const std::string &group) const {
        std::string text;
        for (auto object = plan_.objects.rbegin(); object != plan_.objects.rend(); ++object) {
            if (object->group != group) continue;
            for (const PlannedPair &pair : object->pairs) {
                if (text.find(pair.raw) != std::string::npos) continue;
                text += (text.empty() ? "" : ":") + pair.raw + "," + seen(pair);
            }
        }
        return text;
    }

    std::string seen(const PlannedPair &pair) const {
        if (pair.bcv() == nullptr) return unknown_bcv;
        return pair.bcv_path.empty() ? unseen : pair.bcv_path;
    }

    void bring_up(const PlannedObject &object) {
        if (!brought_up_.insert(object.group).second) return;
        if (plan_.import) {
            add(plan_.mount_commands,
                {path::disk_group_tool, "-C", "-n", clone(object), "import", object.group});
            add(plan_.mount_commands, {path::volume_tool, "-g", clone(object), "startall"});
        } else {
            add(plan_.mount_commands,
                {path::clone_tool, "-g", object.group, "-n", volumes_of(object.group), "-d",
                 devices_of(object.group), "-i", later_file, "-r", host_});
        }
    }

    void mount(const PlannedObject &object, size_t number) {
        std::string raw, block;
        const bool script = access(path::clone_script, F_OK) == 0;
        if (object.is_volume()) {
            bring_up(object);
            raw = path::raw_volume_folder + clone(object) + "/" + object.volume;
            block = path::volume_folder + clone(object) + "/" + object.volume;
            if (script) {
                add(plan_.mount_commands,
                    {path::clone_script, "QzVM", object.group, clone(object), object.volume});
            }
        } else if (!object.pairs.empty()) {
            raw = block = seen(object.pairs.front());
            if (script) add(plan_.mount_commands, {path::clone_script, "RAW", raw, block});
        }
        if (!object.is_file_system()) return;
        add(plan_.mount_commands, {"fsck", "-t", object.type, raw});
        add(plan_.mount_commands, {"mount", "-t", object.type, block, directory(number)});
    }

    void release(const PlannedObject &object, size_t number) {
        if (object.is_file_system()) add(plan_.release_commands, {"umount", directory(number)});
        if (!object.is_volume()) return;
        if (!plan_.import) {
            add(plan_.release_commands,
                {path::clone_tool, "-g", object.group, "-n", object.volume, "-c", clone(object)});
        } else if (taken_down_.insert(object.group).second) {
            add(plan_.release_commands, {path::disk_group_tool, "list", clone(object)});
            add(plan_.release_commands,
                {path::disk_group_tool, "-n", object.group, "deport", clone(object)});
        }
    }

    std::string clone(const PlannedObject &object) const { return clone_name(host_, object.group); }

    std::string directory(size_t number) const {
        const std::string own = std::to_string(number + 1);
        if (settings_.mount_at.empty()) {
            return settings_.state + "/" + path::mount_folder + "/" + host_ + "-ID-" + own;
        }
        return settings_.mount_at + (plan_.objects.size() > 1 ? "/" + own : "");
    }

    const Settings &settings_;
    Plan &plan_;
    const std::string host_;
    std::set<std::string> checkpointed_, brought_up_, taken_down_;
};

}  // namespace

void find_commands(const Settings &settings, Plan &plan) {
    Commands(settings, plan).find();
}

}  // namespace fimctl
