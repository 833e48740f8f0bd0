// The five commands of the volume manager. Each gives its options to a parser, with what is to be
// done as the callback of its subcommand; a callback throws qz::Error.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

namespace qz {

// What the options of a command are stored in, as long as its parser lives.
struct Arguments {
    std::string group, name, new_name, fstype;
    std::vector<std::string> names, disks;
    uint64_t size = 0;
    bool clear_host = false, force = false;
};

void add_qzdg(CLI::App *app, Arguments *arguments);
void add_qzdisk(CLI::App *app, Arguments *arguments);
void add_qzdctl(CLI::App *app, Arguments *arguments);
void add_qzvol(CLI::App *app, Arguments *arguments);
void add_qzvset(CLI::App *app, Arguments *arguments);

// Words with commas between them; "-" for none.
std::string joined(const std::vector<std::string> &words);

}  // namespace qz
