#include "fimctl/commands/command.h"

#include <unistd.h>

#include <charconv>

#include "fimctl/signals.h"
#include "fimctl/source.h"
#include "fimctl/write_all.h"

namespace fimctl {

CLI::App *Commands::add(const std::string &name, const std::string &description, Access access,
                        std::function<void()> perform) {
    CLI::App *app = app_.add_subcommand(name, description);
    entries_.push_back({app, access, std::move(perform), ""});
    return app;
}

void Commands::takes_trailing(const CLI::App *command, const std::string &what) {
    for (Entry &entry : entries_) {
        if (entry.app == command) entry.trailing = what;
    }
}

const Commands::Entry &Commands::chosen() const {
    for (const Entry &entry : entries_) {
        if (entry.app->parsed()) return entry;
    }
    throw CLI::RequiredError("a command");
}

void Commands::check_trailing(bool marked) const {
    const Entry &entry = chosen();
    if (!entry.trailing.empty() && common_.trailing.empty()) {
        throw CLI::RequiredError(entry.app->get_name() + ": -- " + entry.trailing);
    }
    if (entry.trailing.empty() && marked) throw CLI::ExtrasError({"--"});
}

// Whoever may read what a command shows need not be able to write the log file that the
// configuration names for root.
void Commands::prepare(Access access) {
    if (access == Access::working && geteuid() != 0) {
        throw Failure(Step::check, ExitCode::permission, "only root can work on snapshots");
    }
    configuration_.resolve();
    Settings &settings = common_.settings;
    settings.log_file = common_.log.file;
    settings.state = absolute_path(settings.state);
    settings.hooks_named =
        configuration_.origin_of(setting_of("hooks")).source != ValueSource::built_in;
    const bool asked =
        configuration_.origin_of(setting_of("log")).source == ValueSource::command_line;
    if (geteuid() != 0 && !asked) common_.log.file.clear();
    log::set_up(common_.log);
    if (access == Access::working) signals::install();
}

void Commands::perform() {
    const Entry &entry = chosen();
    if (entry.access != Access::telling) prepare(entry.access);
    entry.perform();
}

void tell_result(int64_t id, const std::string &what, const std::string &result) {
    const std::string why = flush_output();
    if (why.empty()) return;
    const std::string number = std::to_string(id);
    Failure failure(
        Step::tell, ExitCode::left,
        "snapshot " + number + " " + what + "; " + result + " could not be written: " + why);
    failure.next =
        "fimctl show " + number + " tells about it, fimctl release " + number + " ends it";
    throw failure;
}

std::string trouble_of_folder(const std::string &text) {
    return text.empty() ? "\"\" is no directory; leave the option out for one of fimctl's own" : "";
}

std::string trouble_of_id(const std::string &text) {
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
        int64_t number = 0;
        const char *end = text.data() + text.size();
        if (std::from_chars(text.data(), end, number).ec == std::errc()) return "";
        return "there is no snapshot " + text + "; fimctl list --all shows the snapshots";
    }
    return "\"" + text + "\" is no snapshot's number; fimctl list shows them";
}

void add_id(CLI::App *command, int64_t &id) {
    command->add_option("ID", id, "the snapshot's number")->required()->check(trouble_of_id);
}

}  // namespace fimctl
