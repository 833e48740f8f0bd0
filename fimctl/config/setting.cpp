#include "fimctl/config/setting.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "fimctl/paths.h"

namespace fimctl {
namespace {

constexpr double one_day = 86400;
constexpr int highest_level = 2;

const Setting settings[] = {
    {"method", "--method", "PATH", Scope::every_command, "the method's library",
     Text{[](Common &c) -> std::string & { return c.settings.method; }, path::method_library, true,
          false}},
    {"state", "--state", "DIR", Scope::every_command, "folder of the catalogue and the copies",
     Text{[](Common &c) -> std::string & { return c.settings.state; }, path::state_directory, true,
          false}},
    {"log", "--log", "FILE", Scope::every_command, "append everything that is told to this file",
     Text{[](Common &c) -> std::string & { return c.log.file; }, "", true, true}},
    {"lock_wait", "--lock-wait", "SECONDS", Scope::every_command,
     "seconds to wait, at mount, release and restore, for another process that owns the array's "
     "mirrors",
     Seconds{[](Common &c) -> double & { return c.settings.lock_wait; }, 60, 0, one_day}},
    {"quiet", "-q,--quiet,!--no-quiet", "", Scope::every_command, "no progress lines",
     Flag{[](Common &c) -> bool & { return c.log.quiet; }, false}},
    {"verbose", "-v", "", Scope::every_command,
     "show the method's lines: -v with the commands it runs, -vv with traces",
     Level{[](Common &c) -> int & { return c.log.level; }, 0, highest_level}},
    {"hooks", "--hooks", "DIR", Scope::every_command,
     "folder of the programs that are told of each phase; \"\" for none",
     Text{[](Common &c) -> std::string & { return c.settings.hooks; }, path::hook_directory, true,
          true}},
    {"hook_timeout", "--hook-timeout", "SECONDS", Scope::every_command,
     "seconds after which a hook is killed",
     Seconds{[](Common &c) -> double & { return c.settings.hook_timeout; }, 60, 0.05, one_day}},
    {"config", "--config", "STRING", Scope::freezing,
     "the method's configuration, such as sync_at_start=1",
     Text{[](Common &c) -> std::string & { return c.settings.config; }, "", false, true}},
    {"freeze_deadline", "--freeze-deadline", "SECONDS", Scope::freezing,
     "seconds after which frozen file systems are thawed, come what may",
     Seconds{[](Common &c) -> double & { return c.settings.freeze_deadline; }, 10, 0.05, 3600}},
    {"quiesce", "--quiesce,!--no-quiesce", "", Scope::freezing,
     "freeze the file systems around the cut",
     Flag{[](Common &c) -> bool & { return c.settings.quiesce; }, true}},
};

std::string in_short(double number) {
    char text[40] = "";
    snprintf(text, sizeof text, "%g", number);
    return text;
}

std::string in_short(bool flag) {
    return flag ? "true" : "false";
}

bool read_flag(const std::string &text, bool &flag) {
    flag = text == "true" || text == "1" || text == "yes" || text == "on";
    return flag || text == "false" || text == "0" || text == "no" || text == "off";
}

bool read_number(const std::string &text, double &number) {
    char *end = nullptr;
    number = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0';
}

}  // namespace

std::span<const Setting> all_settings() {
    return settings;
}

const Setting &setting_of(const std::string &key) {
    for (const Setting &setting : settings) {
        if (setting.key == key) return setting;
    }
    throw std::logic_error("no setting " + key);
}

std::string environment_name_of(const Setting &setting) {
    std::string name = std::string("FIMCTL_") + setting.key;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return name;
}

std::string value_of(const Setting &setting, Common &common) {
    if (const auto *text = std::get_if<Text>(&setting.kind)) return text->of(common);
    if (const auto *seconds = std::get_if<Seconds>(&setting.kind)) {
        return in_short(seconds->of(common));
    }
    if (const auto *flag = std::get_if<Flag>(&setting.kind)) return in_short(flag->of(common));
    return std::to_string(std::get<Level>(setting.kind).of(common));
}

std::string standard_of(const Setting &setting) {
    Common common;
    set_standard(setting, common);
    return value_of(setting, common);
}

void set_standard(const Setting &setting, Common &common) {
    std::visit([&common](const auto &kind) { kind.of(common) = kind.standard; }, setting.kind);
}

std::string set_text(const Setting &setting, Common &common, const std::string &value) {
    if (const auto *text = std::get_if<Text>(&setting.kind)) {
        if (value.find('\n') != std::string::npos || (value.empty() && !text->may_be_empty)) {
            return wanted_by(setting);
        }
        text->of(common) = value;
        return "";
    }
    bool flag = false;
    double number = 0;
    if (std::holds_alternative<Flag>(setting.kind)) {
        return read_flag(value, flag) ? set_flag(setting, common, flag) : wanted_by(setting);
    }
    return read_number(value, number) ? set_number(setting, common, number) : wanted_by(setting);
}

// "not a number" fails every comparison, and so both of these.
std::string set_number(const Setting &setting, Common &common, double value) {
    if (const auto *seconds = std::get_if<Seconds>(&setting.kind)) {
        if (!(value >= seconds->least && value <= seconds->most)) return wanted_by(setting);
        seconds->of(common) = value;
        return "";
    }
    const auto *level = std::get_if<Level>(&setting.kind);
    if (level == nullptr || !(value >= 0 && value <= level->most) || value != std::floor(value)) {
        return wanted_by(setting);
    }
    level->of(common) = static_cast<int>(value);
    return "";
}

std::string set_flag(const Setting &setting, Common &common, bool value) {
    const auto *flag = std::get_if<Flag>(&setting.kind);
    if (flag == nullptr) return wanted_by(setting);
    flag->of(common) = value;
    return "";
}

std::string wanted_by(const Setting &setting) {
    if (const auto *text = std::get_if<Text>(&setting.kind)) {
        return std::string(text->is_path ? "a path" : "a text") +
               (text->may_be_empty ? "" : " that is not empty") + ", without a newline";
    }
    if (const auto *seconds = std::get_if<Seconds>(&setting.kind)) {
        return "a number of seconds from " + in_short(seconds->least) + " to " +
               in_short(seconds->most);
    }
    if (std::holds_alternative<Flag>(setting.kind)) return "true or false";
    return "a whole number from 0 to " + std::to_string(std::get<Level>(setting.kind).most);
}

}  // namespace fimctl
