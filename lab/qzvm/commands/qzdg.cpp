// qzdg: disk groups.
#include <cstdio>

#include "lab/qzvm/commands/commands.h"
#include "lab/qzvm/groups.h"

namespace qz {
namespace {

constexpr char row[] = "%-31s %-9s %-12s %-16s %s\n";

void print_heading() {
    printf(row, "GROUP", "STATE", "HOST", "ID", "DISKS");
}

void print_imported(const std::string &name) {
    try {
        const Imported imported = imported_group(name);
        std::vector<std::string> disks;
        for (const Disk &disk : imported.disks) disks.push_back(disk.name);
        printf(row, name.c_str(), "imported", imported.group.host.c_str(),
               imported.group.id.c_str(), joined(disks).c_str());
    } catch (const Error &error) {
        // It is imported all the same, and can be deported.
        printf(row, name.c_str(), "imported", "-", "-", error.what());
    }
}

void list(const std::string &name) {
    if (!name.empty()) {
        if (!is_imported(name)) throw Error("group " + name + " is not imported here");
        print_heading();
        print_imported(name);
        return;
    }
    print_heading();
    for (const std::string &one : imported_names()) print_imported(one);
    for (const Seen &seen : other_groups()) {
        printf(row, seen.name.c_str(), seen.host.empty() ? "deported" : "foreign",
               seen.host.empty() ? "-" : seen.host.c_str(), seen.id.c_str(),
               joined(seen.disks).c_str());
    }
}

void print(const Notices &notices) {
    for (const std::string &notice : notices) printf("%s\n", notice.c_str());
}

// An option of one subcommand that is given to another would be lost.
void refuse(bool given, const char *option) {
    if (given) throw CLI::ExtrasError({std::string(option)});
}

}  // namespace

void add_qzdg(CLI::App *app, Arguments *given) {
    app->description("Disk groups.");
    app->add_option("-n", given->new_name, "import, deport: the group's name from then on");
    app->add_flag("-C", given->clear_host, "import: also when another host has it imported");
    app->add_flag("-f", given->force, "init: overwrite what the disks hold");

    CLI::App *listing = app->add_subcommand("list", "list the groups, or one that is imported");
    listing->add_option("group", given->group);
    listing->callback([given] {
        refuse(given->clear_host, "-C");
        refuse(!given->new_name.empty(), "-n");
        list(given->group);
    });
    CLI::App *init = app->add_subcommand("init", "make a group of disks and import it");
    init->add_option("group", given->group)->required();
    init->add_option("disk", given->names)->required();
    init->callback([given] {
        refuse(given->clear_host, "-C");
        refuse(!given->new_name.empty(), "-n");
        init_group(given->group, given->names, given->force);
    });
    CLI::App *importing = app->add_subcommand("import", "use a group on this host");
    importing->add_option("group", given->group)->required();
    importing->callback([given] {
        refuse(given->force, "-f");
        print(import_group(given->group, {given->new_name, given->clear_host}));
    });
    CLI::App *deport = app->add_subcommand("deport", "stop its volumes and give a group up");
    deport->add_option("group", given->group)->required();
    deport->callback([given] {
        refuse(given->clear_host, "-C");
        refuse(given->force, "-f");
        print(deport_group(given->group, given->new_name));
    });
    CLI::App *destroy = app->add_subcommand("destroy", "deport a group and clear its disks");
    destroy->add_option("group", given->group)->required();
    destroy->callback([given] {
        refuse(given->clear_host, "-C");
        refuse(!given->new_name.empty(), "-n");
        destroy_group(given->group);
    });
}

}  // namespace qz
