// The settings: one table, from which options, environment, configuration file, help and manual are
// made.
#pragma once

#include <span>
#include <string>
#include <variant>

#include "fimctl/common.h"

namespace fimctl {

// Each kind knows its place in Common, its built-in value and what it accepts.
struct Text {
    std::string &(*of)(Common &);
    const char *standard;
    bool is_path;  // from the root on where a file says it, since a file has no folder of its own
    bool may_be_empty;  // "" switches it off
};
struct Seconds {
    double &(*of)(Common &);
    double standard, least, most;
};
struct Flag {
    bool &(*of)(Common &);
    bool standard;
};
struct Level {
    int &(*of)(Common &);
    int standard, most;
};

enum class Scope {
    every_command,
    freezing  // only run and freeze have the option
};

struct Setting {
    const char *key;  // in the file; FIMCTL_ and the key in capitals is its name in the environment
    const char *option;  // as CLI11 reads it
    const char *value;   // what the help calls its value; "" for one that has none
    Scope scope;
    const char *help;
    std::variant<Text, Seconds, Flag, Level> kind;
};

std::span<const Setting> all_settings();
// Throws std::logic_error for a key that is none.
const Setting &setting_of(const std::string &key);
std::string environment_name_of(const Setting &setting);

// The value as a text, as the environment would say it.
std::string value_of(const Setting &setting, Common &common);
std::string standard_of(const Setting &setting);

// Sets a value. What is not acceptable is answered with what is wanted instead; "" when it is set.
std::string set_text(const Setting &setting, Common &common, const std::string &value);
std::string set_number(const Setting &setting, Common &common, double value);
std::string set_flag(const Setting &setting, Common &common, bool value);
void set_standard(const Setting &setting, Common &common);

// What a setting accepts, for messages and the manual: "a number of seconds from 0 to 86400".
std::string wanted_by(const Setting &setting);

}  // namespace fimctl
