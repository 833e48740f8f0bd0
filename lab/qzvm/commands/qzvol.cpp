// qzvol, qzvset: volumes and volume sets of a group.
#include <cstdio>

#include "lab/qzvm/commands/commands.h"
#include "lab/qzvm/groups.h"
#include "lab/qzvm/volumes.h"

namespace qz {
namespace {

constexpr char row[] = "%-20s %-8s %8s %-8s %-24s %s\n";

void print_heading() {
    printf(row, "VOLUME", "STATE", "MIB", "TYPE", "DISKS", "USE");
}

void print(const Imported &imported, const Volume &volume) {
    std::vector<std::string> disks;
    for (const std::string &id : volume.disks) disks.push_back(imported.disk(id).name);
    const VolumeState state = volume_state(imported.group.name, volume.name);
    printf(row, volume.name.c_str(), state.started ? "started" : "stopped",
           std::to_string(volume.length >> 20).c_str(),
           volume.fstype.empty() ? "-" : volume.fstype.c_str(), joined(disks).c_str(),
           state.use.empty() ? "-" : state.use.c_str());
}

void list_volumes(const std::string &group) {
    const Imported imported = imported_group(group);
    print_heading();
    for (const Volume &volume : imported.group.volumes) print(imported, volume);
}

void add_group(CLI::App *app, Arguments *given) {
    app->add_option("-g", given->group, "the disk group")->required();
}

void add_starts(CLI::App *app, Arguments *given) {
    app->add_subcommand("startall", "start all volumes of the group")->callback([given] {
        start_volumes(given->group);
    });
    app->add_subcommand("stopall", "stop all volumes of the group")->callback([given] {
        stop_volumes(given->group);
    });
    const auto add = [app, given](const char *word, const char *text) {
        CLI::App *command = app->add_subcommand(word, text);
        command->add_option("volume", given->names)->required();
        return command;
    };
    add("start", "start volumes")->callback([given] { start_volumes(given->group, given->names); });
    add("stop", "stop volumes")->callback([given] {
        const Imported imported = imported_group(given->group);
        for (const std::string &name : given->names) imported.volume(name);
        stop_volumes(given->group, given->names);
    });
}

void list_set(const std::string &group, const std::string &name) {
    const Imported imported = imported_group(group);
    const VolumeSet *set = imported.group.set(name);
    if (set == nullptr) throw Error("group " + group + " has no volume set '" + name + "'");
    print_heading();
    for (const std::string &volume : set->volumes) print(imported, imported.volume(volume));
}

void list_sets(const std::string &group) {
    const Imported imported = imported_group(group);
    printf("%-20s %s\n", "SET", "VOLUMES");
    for (const VolumeSet &set : imported.group.sets) {
        printf("%-20s %s\n", set.name.c_str(), joined(set.volumes).c_str());
    }
}

}  // namespace

void add_qzvol(CLI::App *app, Arguments *given) {
    app->description("The volumes of a disk group.");
    add_group(app, given);
    add_starts(app, given);
    app->add_subcommand("list", "list the volumes")->callback([given] {
        list_volumes(given->group);
    });
    CLI::App *make = app->add_subcommand("make", "make a volume");
    make->add_option("volume", given->name)->required();
    make->add_option("size", given->size, "such as 64M; it is rounded up to whole MiB")
        ->required()
        ->transform(CLI::AsSizeValue(false));
    make->add_option("--disk", given->disks,
                     "a disk that it is listed over (may be repeated); its data are on the first")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    make->add_option("--fstype", given->fstype, "a note of what is to be on it");
    make->callback([given] {
        make_volume(given->group, {given->name, given->size, given->disks, given->fstype});
    });
    CLI::App *remove = app->add_subcommand("remove", "remove a stopped volume");
    remove->add_option("volume", given->name)->required();
    remove->callback([given] { remove_volume(given->group, given->name); });
}

void add_qzvset(CLI::App *app, Arguments *given) {
    app->description("The volume sets of a disk group.");
    add_group(app, given);
    CLI::App *listing = app->add_subcommand("list", "list the sets, or the volumes of one");
    listing->add_option("set", given->name);
    listing->callback([given] {
        given->name.empty() ? list_sets(given->group) : list_set(given->group, given->name);
    });
    CLI::App *make = app->add_subcommand("make", "make a set of volumes");
    make->add_option("set", given->name)->required();
    make->add_option("volume", given->names)->required();
    make->callback([given] { make_set(given->group, given->name, given->names); });
    CLI::App *remove = app->add_subcommand("remove", "remove a set; its volumes stay");
    remove->add_option("set", given->name)->required();
    remove->callback([given] { remove_set(given->group, given->name); });
}

}  // namespace qz
