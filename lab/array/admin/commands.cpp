#include "lab/array/admin/commands.h"

#include <cmath>
#include <iostream>

#include "lab/array/admin/scenario.h"
#include "lab/array/admin/table.h"

namespace lab {
namespace {

using nlohmann::json;

json about(const char *command, const Given &given) {
    return {{"command", command}, {"symid", given.symid}, {"name", given.name}};
}

int64_t milliseconds(double seconds) {
    return std::llround(seconds * 1000);
}

// A number as people write it, hexadecimal or decimal.
int64_t number_of(const std::string &text) {
    try {
        size_t used = 0;
        const int64_t number = std::stoll(text, &used, 0);
        if (used == text.size() && number >= 0 && number <= UINT32_MAX) return number;
    } catch (const std::logic_error &) {
    }
    throw ScenarioError("version \"" + text + "\": a number like 0x05000000");
}

json control_of(const Given &given, int number) {
    json pairs = json::array();
    if (given.names.size() % 2 != 0) throw ScenarioError("a pair is a standard device and a BCV");
    for (size_t i = 0; i < given.names.size(); i += 2) {
        pairs.push_back({given.names[i], given.names[i + 1]});
    }
    return {{"command", "control"}, {"symid", given.symid}, {"action", number}, {"pairs", pairs}};
}

int show(Link *link, const Given &given) {
    json report = link->ask({{"command", "show"}});
    report.erase("ok");
    std::cout << (given.json ? report.dump(2) + "\n" : table_of(report));
    return 0;
}

int build(Link *link, const Given &given) {
    for (const json &one : commands_of_file(given.file)) link->ask(one);
    return 0;
}

int check(Link *link, const Given &) {
    const json broken = link->ask({{"command", "check"}}).at("broken");
    for (const json &one : broken) std::cerr << "tfarray: " << one.get<std::string>() << "\n";
    return broken.empty() ? 0 : 1;
}

int clock_of(Link *link, const json &request) {
    const json answer = link->ask(request);
    std::cout << answer.at("seconds").get<double>() << " s"
              << (answer.at("running").get<bool>() ? "" : " (stopped)") << "\n";
    return 0;
}

int add_fault(Link *link, const Given &given) {
    json request = {{"command", "fault add"}, {"function", given.function}, {"at", given.at},
                    {"for_good", given.flag}, {"after", given.second_flag}, {"device", given.name},
                    {"host", given.host},     {"delay_ms", given.delay_ms}};
    if (given.code != 0) request["code"] = given.code;
    std::cout << link->ask(request).at("id").get<int64_t>() << "\n";
    return 0;
}

}  // namespace

Commands::Commands(CLI::App *app) : app_(app) {
    add_building();
    add_hosts();
    add_control();
    add_faults();
    add_settings();
    add_looking();
}

CLI::App *Commands::action(CLI::App *parent, const std::string &name, const std::string &help,
                           std::function<int(Link *, const Given &)> run) {
    CLI::App *made = parent->add_subcommand(name, help);
    made->callback([this, run = std::move(run)] {
        chosen_ = [given = given_, run](Link *link) { return run(link, *given); };
    });
    return made;
}

CLI::App *Commands::command(CLI::App *parent, const std::string &name, const std::string &help,
                            Build build) {
    return action(parent, name, help, [build = std::move(build)](Link *link, const Given &given) {
        link->ask(build(given));
        return 0;
    });
}

void Commands::add_building() {
    Given &g = *given_;
    CLI::App *array = app_->add_subcommand("array", "arrays")->require_subcommand(1);
    CLI::App *made = command(array, "create", "make an array", [](const Given &given) {
        json request = {{"command", "array create"}, {"symid", given.symid}};
        if (!given.size.empty()) request["capacity"] = bytes_of(given.size);
        return request;
    });
    made->add_option("SYMID", g.symid, "serial number, 12 digits")->required();
    made->add_option("--size", g.size, "most bytes of its standard devices, e.g. 4G");

    CLI::App *device = app_->add_subcommand("device", "devices")->require_subcommand(1);
    made = command(device, "create", "make a device", [](const Given &given) {
        json request = about("device create", given);
        request["size"] = bytes_of(given.size);
        request["bcv"] = given.flag;
        return request;
    });
    made->add_option("SYMID", g.symid)->required();
    made->add_option("NAME", g.name, "4 characters of 0-9 and A-F")->required();
    made->add_option("--size", g.size, "e.g. 64M")->required();
    made->add_flag("--bcv", g.flag, "a BCV instead of a standard device");

    made = command(app_, "pair", "pair a standard device with a BCV", [](const Given &given) {
        return json{{"command", "pair"},
                    {"symid", given.symid},
                    {"primary", given.name},
                    {"bcv", given.other},
                    {"synchronised", given.flag}};
    });
    made->add_option("SYMID", g.symid)->required();
    made->add_option("PRIMARY", g.name)->required();
    made->add_option("BCV", g.other)->required();
    made->add_flag("--synchronised", g.flag, "establish it too");

    made = command(app_, "label", "give a device its logical name", [](const Given &given) {
        json request = about("label", given);
        request["label"] = given.label;
        return request;
    });
    made->add_option("SYMID", g.symid)->required();
    made->add_option("DEVICE", g.name)->required();
    made->add_option("LABEL", g.label)->required();

    CLI::App *group = app_->add_subcommand("group", "device groups")->require_subcommand(1);
    made = command(group, "add", "put devices into a group", [](const Given &given) {
        json request = about("group add", given);
        request["group"] = given.group;
        request["label"] = given.label;
        return request;
    });
    made->add_option("SYMID", g.symid)->required();
    made->add_option("GROUP", g.group)->required();
    made->add_option("DEVICE", g.name)->required();
    made->add_option("--label", g.label, "logical name");
}

void Commands::add_hosts() {
    Given &g = *given_;
    CLI::App *host = app_->add_subcommand("host", "hosts")->require_subcommand(1);
    CLI::App *made = command(host, "add", "let a host reach the arrays", [](const Given &given) {
        return json{{"command", "host add"},
                    {"name", given.host},
                    {"socket", given.socket},
                    {"dev", given.dev}};
    });
    made->add_option("NAME", g.host)->required();
    made->add_option("--socket", g.socket, "where its library connects to")->required();
    made->add_option("--dev", g.dev, "its /dev")->required();
    made = command(host, "remove", "forget a host; its masks stay", [](const Given &given) {
        return json{{"command", "host remove"}, {"name", given.host}};
    });
    made->add_option("NAME", g.host)->required();

    made = command(app_, "mask", "show a device to a host", [](const Given &given) {
        json request = about("mask", given);
        request["host"] = given.host;
        request["paths"] = given.paths;
        request["ports"] = given.ports;
        return request;
    });
    made->add_option("SYMID", g.symid)->required();
    made->add_option("DEVICE", g.name)->required();
    made->add_option("HOST", g.host)->required();
    made->add_option("PATH", g.paths, "the first is the device's name")->required();
    made->add_option("--port", g.ports, "an alternate path")->take_all()->expected(1);
    made = command(app_, "unmask", "hide a device from a host", [](const Given &given) {
        json request = about("unmask", given);
        request["host"] = given.host;
        return request;
    });
    made->add_option("SYMID", g.symid)->required();
    made->add_option("DEVICE", g.name)->required();
    made->add_option("HOST", g.host)->required();

    CLI::App *path = app_->add_subcommand("path", "paths of a host")->require_subcommand(1);
    for (const bool down : {true, false}) {
        made = command(path, down ? "down" : "up", down ? "take a path down" : "bring a path up",
                       [down](const Given &given) {
                           return json{{"command", "path"},
                                       {"host", given.host},
                                       {"path", given.path},
                                       {"down", down}};
                       });
        made->add_option("HOST", g.host)->required();
        made->add_option("PATH", g.path)->required();
    }
}

void Commands::add_control() {
    Given &g = *given_;
    const struct {
        const char *name, *help;
        int number;
    } all[] = {{"establish", "join pairs, moving what changed", 3},
               {"split", "cut pairs, all in one instant", 2},
               {"restore", "copy BCVs back into their standard devices", 5}};
    for (const auto &one : all) {
        CLI::App *made =
            command(app_, one.name, one.help, [number = one.number](const Given &given) {
                return control_of(given, given.flag ? 1 : number);
            });
        made->add_option("SYMID", g.symid)->required();
        made->add_option("PAIR", g.names, "standard device and BCV, again and again")->required();
        if (one.number == 3) made->add_flag("--full", g.flag, "move everything");
    }
}

void Commands::add_faults() {
    Given &g = *given_;
    CLI::App *fault = app_->add_subcommand("fault", "scripted faults")->require_subcommand(1);
    CLI::App *made = action(fault, "add", "fail a call; prints the fault's number", add_fault);
    made->add_option("FUNCTION", g.function, "e.g. SymDevListBcvControl")->required();
    made->add_option("--at", g.at, "the how many-th matching call")->capture_default_str();
    made->add_option("--device", g.name, "count only calls about this device");
    made->add_option("--host", g.host, "count only calls of this host");
    made->add_flag("--for-good", g.flag, "every later one too");
    made->add_flag("--after", g.second_flag, "after the effect: done, answer lost");
    made->add_option("--code", g.code, "what to answer");
    made->add_option("--delay-ms", g.delay_ms, "answer so much later");
    made = command(fault, "clear", "forget a fault, or all", [](const Given &given) {
        return json{{"command", "fault clear"}, {"id", given.number}};
    });
    made->add_option("ID", g.number);
}

void Commands::add_settings() {
    Given &g = *given_;
    CLI::App *made = command(app_, "rate", "how fast pairs move data", [](const Given &given) {
        return json{{"command", "settings"}, {"rate", given.number}};
    });
    made->add_option("MIB_A_SECOND", g.number, "0: everything at once")
        ->required()
        ->check(CLI::NonNegativeNumber);

    made = command(app_, "version", "the release that hosts see", [](const Given &given) {
        json request = {{"command", "settings"}};
        if (!given.version.empty()) request["version"] = number_of(given.version);
        if (!given.patch.empty()) request["patch"] = given.patch;
        return request;
    });
    made->add_option("NUMBER", g.version, "e.g. 0x05000000");
    made->add_option("--patch", g.patch, "patch level");

    for (const bool background : {false, true}) {
        made = command(app_, background ? "background-time" : "split-time",
                       background ? "how long a split keeps the array busy behind the scenes"
                                  : "how long a split takes",
                       [background](const Given &given) {
                           return json{{"command", "settings"},
                                       {background ? "background_ms" : "split_ms",
                                        milliseconds(given.seconds)}};
                       });
        made->add_option("SECONDS", g.seconds)->required()->check(CLI::NonNegativeNumber);
    }

    CLI::App *clock = app_->add_subcommand("clock", "virtual time")->require_subcommand(1);
    made = action(clock, "advance", "put it forward", [](Link *link, const Given &given) {
        return clock_of(link, {{"command", "clock"}, {"advance_ms", milliseconds(given.seconds)}});
    });
    made->add_option("SECONDS", g.seconds)->required()->check(CLI::NonNegativeNumber);
    action(clock, "show", "what time it is", [](Link *link, const Given &) {
        return clock_of(link, {{"command", "clock"}});
    });
    for (const bool running : {true, false}) {
        action(clock, running ? "run" : "stop",
               running ? "let it run with real time" : "let it stand still",
               [running](Link *link, const Given &) {
                   return clock_of(link, {{"command", "clock"}, {"running", running}});
               });
    }
}

void Commands::add_looking() {
    Given &g = *given_;
    CLI::App *made = action(app_, "show", "the whole array", show);
    made->add_flag("--json", g.json, "for programs");
    made = action(app_, "build", "build what a scenario describes", build);
    made->add_option("SCENARIO", g.file, "a TOML file")->required()->check(CLI::ExistingFile);
    action(app_, "check", "say what is wrong, exit 1 when anything is", check);
}

}  // namespace lab
