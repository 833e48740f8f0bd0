// The command line of tfarray: what the administrator can say, as commands of the array.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "lab/array/admin/link.h"

namespace lab {

// What a command line is parsed into; each command uses the fields of its own options.
struct Given {
    std::string symid, name, other, size, label, group, host, path, file, function, patch;
    std::string socket, dev, version;
    std::vector<std::string> names, paths, ports;
    bool flag = false, second_flag = false, json = false;
    int64_t number = 0, at = 1, code = 0, delay_ms = 0;
    double seconds = 0;
};

class Commands {
  public:
    // Adds all commands to the application.
    explicit Commands(CLI::App *app);
    // What the parsed command line does; answers the exit code.
    std::function<int(Link *)> chosen() const { return chosen_; }

  private:
    using Build = std::function<nlohmann::json(const Given &)>;
    // A command that sends what `build` makes of the options and prints nothing.
    CLI::App *command(CLI::App *parent, const std::string &name, const std::string &help,
                      Build build);
    CLI::App *action(CLI::App *parent, const std::string &name, const std::string &help,
                     std::function<int(Link *, const Given &)> run);
    void add_building();
    void add_hosts();
    void add_control();
    void add_faults();
    void add_settings();
    void add_looking();

    CLI::App *app_;
    std::shared_ptr<Given> given_ = std::make_shared<Given>();
    std::function<int(Link *)> chosen_;
};

}  // namespace lab
