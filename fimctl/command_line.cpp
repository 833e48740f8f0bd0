#include "fimctl/command_line.h"

#include <algorithm>
#include <cstdio>

#include "fimctl/commands/command.h"
#include "fimctl/hooks.h"
#include "fimctl/write_all.h"

namespace fimctl {
namespace {

constexpr char footer[] =
    "Exit codes: 0 done; 1 failed and rolled back; 2 usage; 3 something is left to clean;\n"
    "10 no such snapshot; 11 owned by another process; 12 array not available; 13 permission;\n"
    "130 interrupted, after clean-up.\n"
    "Manual: man 8 fimctl; settings: man 5 fimctl.toml; how a snapshot lives: man 7 "
    "tessera-snapshot";

class CommandLine {
  public:
    CommandLine()
        : app_("Takes, shows and releases snapshots through the snapshot method.", "fimctl"),
          commands_(app_, common_) {
        app_.footer(footer);
        app_.require_subcommand(1);
        app_.fallthrough();
        commands_.configuration().add_options(&app_, Scope::every_command);
        add_freezing_commands(commands_);
        add_copy_commands(commands_);
        add_travel_commands(commands_);
        add_restore_commands(commands_);
        add_catalogue_commands(commands_);
        add_configuration_commands(commands_);
        add_inspection_commands(commands_);
        add_left_over_commands(commands_);
        add_completion_commands(commands_);
    }

    // Everything behind the first "--" is the command of run, and none of our options.
    void parse(int argc, const char *const *argv) {
        std::vector<std::string> words(argv + 1, argv + argc);
        const auto mark = std::find(words.begin(), words.end(), "--");
        const bool marked = mark != words.end();
        if (marked) common_.trailing.assign(mark + 1, words.end());
        words.erase(mark, words.end());
        std::reverse(words.begin(), words.end());
        try {
            app_.parse(words);
        } catch (const CLI::RequiredError &) {
            // A misspelt command is named; that one is missing would puzzle who wrote it.
            const auto unknown = app_.remaining();
            if (!app_.get_subcommands().empty() || unknown.empty()) throw;
            throw CLI::ExtrasError({unknown.front()});
        }
        commands_.check_trailing(marked);
    }

    int end(const CLI::ParseError &error) { return app_.exit(error); }

    // The chosen command. Throws Failure.
    void perform() { commands_.perform(); }

    void failed(const Failure &failure) { tell_hooks_of_failure(common_.settings, failure); }

  private:
    Common common_;
    CLI::App app_;
    Commands commands_;
};

void tell(const Failure &failure) {
    std::string line = failure.id != 0 ? "snapshot " + std::to_string(failure.id) + ": " : "";
    line += std::string("step \"") + name_of(failure.step) + "\" failed: " + failure.what();
    if (failure.number != 0) line += " (error number " + std::to_string(failure.number) + ")";
    log::problem(line);
    if (!failure.afterwards.empty()) log::problem("then: " + failure.afterwards);
    const std::string remedy =
        failure.next.empty() ? remedy_of(failure.step, failure.code, failure.id) : failure.next;
    if (!remedy.empty()) log::problem("next: " + remedy);
}

// A command that could not say what it was asked for has failed.
int ended(ExitCode code) {
    const std::string why = flush_output();
    if (why.empty()) return static_cast<int>(code);
    log::problem("standard output cannot be written: " + why);
    return static_cast<int>(ExitCode::failed);
}

}  // namespace

int run_command_line(int argc, const char *const *argv) {
    CommandLine line;
    try {
        line.parse(argc, argv);
        line.perform();
    } catch (const CLI::ParseError &error) {
        return line.end(error) == 0 ? 0 : static_cast<int>(ExitCode::usage);
    } catch (const Ended &end) {
        return ended(end.code);
    } catch (const Failure &failure) {
        fflush(stdout);
        tell(failure);
        line.failed(failure);
        return static_cast<int>(failure.code);
    }
    return ended(ExitCode::done);
}

}  // namespace fimctl
