// qzdisk, qzdctl: the disks that are used, and the daemon.
#include <cstdio>

#include "lab/qzvm/commands/commands.h"
#include "lab/qzvm/disks.h"
#include "lab/qzvm/groups.h"

namespace qz {
namespace {

// What a disk says it belongs to, and what keeps it from saying so.
std::string group_of(const Disk &disk) {
    if (!disk.online) return "-";
    try {
        if (capacity_of(disk.block) == 0) return "(no capacity)";
        const Found found = read_region(disk.block);
        if (found.content == Content::damaged) return "(damaged)";
        return found.content == Content::good ? found.region.group.name : "-";
    } catch (const Error &) {
        return "(cannot be read)";
    }
}

void print(const Disk &disk) {
    const char *state = disk.online ? "online" : disk.defined ? "offline" : "undefined";
    printf("%-12s %-9s %-28s %s\n", disk.name.c_str(), state, disk.raw.c_str(),
           group_of(disk).c_str());
}

// The method asks for a name that is empty when it does not know the disk's; that is no failure.
void list(const std::string &name) {
    const Exclusive only;
    const Disks disks = Disks::scan(load_state());
    const Disk *one = nullptr;
    if (!name.empty()) {
        one = &disks.at(name);
        if (!one->defined) throw Error("disk " + name + " is not defined");
    }
    printf("%-12s %-9s %-28s %s\n", "DISK", "STATE", "RAW DEVICE", "GROUP");
    if (one != nullptr) {
        print(*one);
        return;
    }
    for (const Disk &disk : disks.all()) print(disk);
}

void set_daemon(Daemon daemon) {
    const Exclusive only;
    State state = load_state();
    state.daemon = daemon;
    save_state(state);
}

void print_status() {
    const Exclusive only;
    switch (load_state().daemon) {
    case Daemon::enabled:
        printf("enabled\n");
        break;
    case Daemon::disabled:
        printf("disabled\n");
        break;
    case Daemon::stalled:
        printf("stalled: it answers no import\n");
        break;
    }
}

}  // namespace

void add_qzdisk(CLI::App *app, Arguments *given) {
    app->description("The disks that the volume manager uses on this host.");
    CLI::App *listing = app->add_subcommand("list", "list the disks, or one that is defined");
    listing->add_option("disk", given->name);
    listing->callback([given] { list(given->name); });
    const auto add = [app, given](const char *word, const char *text,
                                  void (*act)(const std::string &)) {
        CLI::App *command = app->add_subcommand(word, text);
        command->add_option("disk", given->name)->required();
        command->callback([given, act] { act(given->name); });
    };
    add("define", "make a disk known", define_disk);
    add("undefine", "forget a disk", undefine_disk);
    add("online", "use a defined disk in imports", online_disk);
    add("offline", "do not use it", offline_disk);
}

void add_qzdctl(CLI::App *app, Arguments *) {
    app->description("The daemon of the volume manager.");
    app->add_subcommand("enable", "let it work, whatever it was")->callback([] {
        set_daemon(Daemon::enabled);
    });
    app->add_subcommand("disable", "imports fail until it is enabled")->callback([] {
        set_daemon(Daemon::disabled);
    });
    app->add_subcommand("stall", "a fault of the lab: imports fail until it is enabled")
        ->callback([] { set_daemon(Daemon::stalled); });
    app->add_subcommand("status", "tell its state")->callback(print_status);
}

}  // namespace qz
