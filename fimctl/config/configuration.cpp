#include "fimctl/config/configuration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>

#define TOML_EXCEPTIONS 1
#include <toml++/toml.h>

#include "fimctl/failure.h"
#include "fimctl/hooks.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

constexpr char variable_prefix[] = "FIMCTL_";
constexpr char file_variable[] = "FIMCTL_CONFIG_FILE";

Failure wrong(const std::string &where, const std::string &text) {
    return Failure(Step::configuration, ExitCode::usage, where + ": " + text);
}

std::string at_line(const std::string &name, const toml::source_region &region) {
    return name + ":" + std::to_string(region.begin.line);
}

std::string known_keys() {
    std::string keys;
    for (const Setting &setting : all_settings()) {
        keys += (keys.empty() ? "" : ", ") + std::string(setting.key);
    }
    return keys;
}

const Setting *find_setting(std::string_view key) {
    for (const Setting &setting : all_settings()) {
        if (setting.key == key) return &setting;
    }
    return nullptr;
}

[[noreturn]] void cannot_read(const std::string &name, int reason) {
    throw Failure(Step::configuration, reason == EACCES ? ExitCode::permission : ExitCode::usage,
                  "cannot read " + name + ": " + strerror(reason));
}

// The file names the library that root loads: nobody else may be able to write it.
void refuse_others_file(const std::string &name, int file) {
    struct stat status = {};
    if (fstat(file, &status) != 0) cannot_read(name, errno);
    const bool ours = status.st_uid == 0 || status.st_uid == geteuid();
    if (!S_ISREG(status.st_mode) || (ours && (status.st_mode & 022) == 0)) return;
    Failure failure(Step::configuration, ExitCode::permission,
                    name + ": others than its owner root can write it");
    failure.next = "look at what it says, then: chown root:root " + name + "; chmod 644 " + name;
    throw failure;
}

std::string contents_of(const std::string &name, int file) {
    std::string text;
    char part[4096];
    for (;;) {
        const ssize_t size = read(file, part, sizeof part);
        if (size < 0) cannot_read(name, errno);
        if (size == 0) return text;
        text.append(part, static_cast<size_t>(size));
    }
}

struct OpenFile {
    explicit OpenFile(const std::string &name) : fd(open(name.c_str(), O_RDONLY | O_CLOEXEC)) {}
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    ~OpenFile() {
        if (fd >= 0) close(fd);
    }
    const int fd;
};

std::string assign(const Setting &setting, Common &common, const toml::node &value) {
    if (const auto *text = value.as_string()) {
        const auto *kind = std::get_if<Text>(&setting.kind);
        if (kind == nullptr) return wanted_by(setting);
        if (kind->is_path && !text->get().empty() && text->get().front() != '/') {
            return "a path that begins with \"/\"";
        }
        return set_text(setting, common, text->get());
    }
    if (const auto *flag = value.as_boolean()) return set_flag(setting, common, flag->get());
    if (const auto *whole = value.as_integer()) {
        return set_number(setting, common, static_cast<double>(whole->get()));
    }
    if (const auto *number = value.as_floating_point()) {
        return set_number(setting, common, number->get());
    }
    return wanted_by(setting);
}

}  // namespace

const char *name_of(ValueSource source) {
    switch (source) {
    case ValueSource::built_in:
        return "built-in";
    case ValueSource::file:
        return "file";
    case ValueSource::environment:
        return "environment";
    case ValueSource::command_line:
        return "command line";
    }
    return "unknown";
}

Configuration::Configuration(Common &common) : common_(common) {
    for (const Setting &setting : all_settings()) set_standard(setting, common_);
}

void Configuration::add_options(CLI::App *command, Scope scope) {
    if (scope == Scope::every_command) {
        file_option_ = command->add_option("--config-file", wanted_file_,
                                           "the configuration file; \"\" for none");
        file_option_->type_name("FILE")->default_str(path::configuration_file);
    }
    for (const Setting &setting : all_settings()) {
        if (setting.scope != scope) continue;
        CLI::Option *option = nullptr;
        const std::string name = setting.option;
        if (const auto *text = std::get_if<Text>(&setting.kind)) {
            option = command->add_option(name, text->of(common_), setting.help);
        } else if (const auto *seconds = std::get_if<Seconds>(&setting.kind)) {
            option = command->add_option(name, seconds->of(common_), setting.help)
                         ->check(CLI::Range(seconds->least, seconds->most));
        } else if (const auto *flag = std::get_if<Flag>(&setting.kind)) {
            option = command->add_flag(name, flag->of(common_), setting.help);
        } else {
            option =
                command->add_flag(name, std::get<Level>(setting.kind).of(common_), setting.help);
        }
        if (*setting.value != '\0') option->type_name(setting.value);
        if (option->get_items_expected() > 0 && !standard_of(setting).empty()) {
            option->capture_default_str();
        }
        options_.emplace(setting.key, option);
    }
}

void Configuration::resolve() {
    origins_.clear();
    for (const auto &[key, option] : options_) {
        if (option->count() == 0) continue;
        origins_[key] = {ValueSource::command_line, option->get_name()};
        const Setting &setting = setting_of(key);
        // The parser has written it already; a text is looked at here like any other one.
        const std::string wanted = std::holds_alternative<Flag>(setting.kind)
                                       ? ""
                                       : set_text(setting, common_, value_of(setting, common_));
        if (!wanted.empty()) throw wrong(option->get_name(), wanted + " is wanted");
    }
    apply_environment();
    const char *variable = getenv(file_variable);
    if (file_option_ != nullptr && file_option_->count() > 0) {
        read_file(wanted_file_, true);
    } else if (variable != nullptr) {
        read_file(variable, true);
    } else {
        read_file(path::configuration_file, false);
    }
}

void Configuration::apply_environment() {
    for (const Setting &setting : all_settings()) {
        const std::string name = environment_name_of(setting);
        const char *value = getenv(name.c_str());
        if (value == nullptr || origins_.contains(setting.key)) continue;
        const std::string wanted = set_text(setting, common_, value);
        if (!wanted.empty()) throw wrong(name, wanted + " is wanted, not \"" + value + "\"");
        origins_[setting.key] = {ValueSource::environment, name};
    }
}

void Configuration::read_file(const std::string &name, bool must_exist) {
    if (name.empty()) return;
    const OpenFile file(name);
    if (file.fd < 0) {
        if (errno == ENOENT && !must_exist) return;
        cannot_read(name, errno);
    }
    refuse_others_file(name, file.fd);
    const std::string text = contents_of(name, file.fd);
    read_ = name;
    apply_file(text, name);
}

// Every key is looked at, also where something stronger has said it: a mistake in the file must not
// show on the day that the variable is gone.
void Configuration::apply_file(const std::string &text, const std::string &name) {
    toml::table table;
    try {
        table = toml::parse(text, name);
    } catch (const toml::parse_error &error) {
        throw wrong(at_line(name, error.source()), std::string(error.description()));
    }
    for (const auto &[key, value] : table) {
        const std::string where = at_line(name, key.source());
        const Setting *setting = find_setting(key.str());
        if (setting == nullptr) {
            throw wrong(
                where, "unknown key \"" + std::string(key.str()) + "\"; there are " + known_keys());
        }
        Common checked;
        const bool said = origins_.contains(setting->key);
        const std::string wanted = assign(*setting, said ? checked : common_, value);
        if (!wanted.empty()) throw wrong(where, setting->key + (": " + wanted) + " is wanted");
        if (!said) origins_[setting->key] = {ValueSource::file, where};
    }
}

Origin Configuration::origin_of(const Setting &setting) const {
    const auto found = origins_.find(setting.key);
    return found == origins_.end() ? Origin() : found->second;
}

std::vector<std::string> Configuration::unknown_variables() {
    std::vector<std::string> unknown;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        if (!name.starts_with(variable_prefix) || name == file_variable) continue;
        bool known = false;
        for (const Setting &setting : all_settings()) {
            known = known || name == environment_name_of(setting);
        }
        // A hook may well call fimctl.
        for (const char *variable : hook_variables()) known = known || name == variable;
        if (!known) unknown.push_back(name);
    }
    return unknown;
}

}  // namespace fimctl
