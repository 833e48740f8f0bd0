// The subcommands: each is added by a function of its own, with its options and what it does.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "fimctl/common.h"
#include "fimctl/config/configuration.h"
#include "fimctl/failure.h"

namespace fimctl {

enum class Access {
    telling,  // of fimctl itself: needs no configuration, and works when that is broken
    reading,  // may be asked by anybody who may read what it shows
    working   // needs root, and can be interrupted
};

class Commands {
  public:
    Commands(CLI::App &app, Common &common) : app_(app), common_(common), configuration_(common) {}
    Commands(const Commands &) = delete;
    Commands &operator=(const Commands &) = delete;

    // perform is called when the command line names this command; it throws Failure.
    CLI::App *add(const std::string &name, const std::string &description, Access access,
                  std::function<void()> perform);
    // Everything behind "--" is this command's, and is required.
    void takes_trailing(const CLI::App *command, const std::string &what);

    CLI::App &app() { return app_; }
    Common &common() { return common_; }
    Configuration &configuration() { return configuration_; }
    // Throws CLI::ParseError when words stand behind "--" that belong there to no command, or are
    // missing where they do.
    void check_trailing(bool marked) const;
    void perform();

  private:
    struct Entry {
        CLI::App *app;
        Access access;
        std::function<void()> perform;
        std::string trailing;  // "" when nothing may stand behind "--"
    };
    const Entry &chosen() const;
    void prepare(Access access);

    CLI::App &app_;
    Common &common_;
    Configuration configuration_;
    std::vector<Entry> entries_;
};

// In the order of the help page.
void add_freezing_commands(Commands &commands);       // run, freeze
void add_copy_commands(Commands &commands);           // mount, release
void add_travel_commands(Commands &commands);         // export, import
void add_restore_commands(Commands &commands);        // restore
void add_catalogue_commands(Commands &commands);      // list, show
void add_configuration_commands(Commands &commands);  // config
void add_left_over_commands(Commands &commands);      // orphans, cleanup
void add_inspection_commands(Commands &commands);     // locks, doctor, plan
void add_completion_commands(Commands &commands);     // completion

// Sends out what a command that has changed something has printed. Throws Failure, with something
// left: what: what there is now; result: what of it could not be told.
void tell_result(int64_t id, const std::string &what, const std::string &result);

// Of the commands that take one: the number of a snapshot.
void add_id(CLI::App *command, int64_t &id);
// Why a word cannot be the directory of a copy; "" when it can.
std::string trouble_of_folder(const std::string &text);
// Why a word of the command line is no number of a snapshot; "" when it is one.
std::string trouble_of_id(const std::string &text);

}  // namespace fimctl
