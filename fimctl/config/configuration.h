// Where each setting comes from: the command line wins over the environment, that over the
// configuration file, that over what is built in.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "fimctl/config/setting.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace fimctl {

enum class ValueSource { built_in, file, environment, command_line };
const char *name_of(ValueSource source);

struct Origin {
    ValueSource source = ValueSource::built_in;
    std::string where;  // "--state", "FIMCTL_STATE", "/etc/fimctl/fimctl.toml:3"; "" for built in
};

class Configuration {
  public:
    // Gives every setting its built-in value.
    explicit Configuration(Common &common);
    Configuration(const Configuration &) = delete;
    Configuration &operator=(const Configuration &) = delete;

    // Adds the options of a scope to a command. The first of them names the file.
    void add_options(CLI::App *command, Scope scope);
    // After the command line was parsed: fills what it left open. Throws Failure (usage, or
    // permission) naming the file and line, or the variable.
    void resolve();

    // The configuration file that was read, "" for none.
    const std::string &file() const { return read_; }
    Origin origin_of(const Setting &setting) const;
    // Variables FIMCTL_* that no setting has and that look as if they were meant for one.
    static std::vector<std::string> unknown_variables();

  private:
    void read_file(const std::string &name, bool must_exist);
    void apply_file(const std::string &text, const std::string &name);
    void apply_environment();

    Common &common_;
    std::string wanted_file_;  // --config-file
    CLI::Option *file_option_ = nullptr;
    std::multimap<std::string, const CLI::Option *> options_;  // by key
    std::map<std::string, Origin> origins_;                    // by key
    std::string read_;
};

// What `fimctl config` prints.
std::string configuration_listing(const Configuration &configuration, Common &common, bool json);

}  // namespace fimctl
