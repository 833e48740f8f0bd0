// The volume manager of the lab: one program behind the names qzdg, qzdisk, qzdctl, qzvol, qzvset.
//
// Exit statuses: 0 done, 1 failed with the reason on standard error and nothing changed, 2 a
// command line that is not understood.
#include <cstdio>
#include <exception>
#include <string>

#include "lab/qzvm/commands/commands.h"

namespace qz {

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) {
        if (!text.empty()) text += ',';
        text += word;
    }
    return text.empty() ? "-" : text;
}

}  // namespace qz

namespace {

struct Command {
    const char *name;
    void (*add)(CLI::App *app, qz::Arguments *arguments);
};

constexpr Command commands[] = {
    {"qzdg", qz::add_qzdg},   {"qzdisk", qz::add_qzdisk}, {"qzdctl", qz::add_qzdctl},
    {"qzvol", qz::add_qzvol}, {"qzvset", qz::add_qzvset},
};

const Command *command_called(const std::string &path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    for (const Command &command : commands) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

int run(const Command &command, int argc, char **argv) {
    qz::Arguments arguments;
    CLI::App app("", command.name);
    app.require_subcommand(1);
    app.fallthrough();
    command.add(&app, &arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const std::exception &error) {
        fflush(stdout);
        fprintf(stderr, "%s: %s\n", command.name, error.what());
        return 1;
    }
    if (fflush(stdout) != 0) {
        fprintf(stderr, "%s: cannot write to standard output\n", command.name);
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    const Command *command = argc > 0 ? command_called(argv[0]) : nullptr;
    if (command == nullptr && argc > 1) {
        command = command_called(argv[1]);
        --argc;
        ++argv;
    }
    if (command != nullptr) return run(*command, argc, argv);
    fprintf(stderr, "usage: qzvm qzdg|qzdisk|qzdctl|qzvol|qzvset ARGUMENT...\n");
    return 2;
}
