#include "fimctl/command_line.h"

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "fimctl/array_reader.h"
#include "fimctl/cycle.h"
#include "fimctl/listing.h"
#include "fimctl/log.h"
#include "fimctl/paths.h"
#include "fimctl/signals.h"
#include "fimctl/source.h"

namespace fimctl {
namespace {

constexpr double default_freeze_deadline = 10;
constexpr double longest_freeze_deadline = 3600;
constexpr double default_lock_wait = 60;
constexpr double longest_lock_wait = 86400;

constexpr char footer[] =
    "Exit codes: 0 done; 1 failed and rolled back; 2 usage; 3 something is left to clean;\n"
    "10 no such snapshot; 11 owned by another process; 12 array not available; 13 permission;\n"
    "130 interrupted, after clean-up.";

struct Options {
    Settings settings;
    log::Settings log;
    std::vector<std::string> paths;
    std::vector<std::string> command;  // behind "--"
    int64_t id = 0;
    bool json = false;
    bool all = false;
    bool no_quiesce = false;
};

class CommandLine {
  public:
    CommandLine()
        : app_("Takes, shows and releases snapshots through the snapshot method.", "fimctl") {
        app_.footer(footer);
        app_.require_subcommand(1);
        app_.fallthrough();
        add_common();
        run_ = app_.add_subcommand(
            "run", "the whole cycle around a command: fimctl run PATH... -- COMMAND ARG...");
        freeze_ = app_.add_subcommand("freeze", "take a snapshot; prints its number");
        for (CLI::App *command : {run_, freeze_}) add_freeze_options(command);
        mount_ = app_.add_subcommand("mount", "bring a snapshot's copy up; prints where");
        release_ = app_.add_subcommand("release", "end a snapshot");
        list_ = app_.add_subcommand("list", "the snapshots that are not over");
        list_->add_flag("--all", options_.all, "those that are over as well");
        show_ = app_.add_subcommand("show", "one snapshot, with its pairs as they are now");
        for (CLI::App *command : {mount_, release_, show_}) {
            command->add_option("ID", options_.id, "the snapshot's number")->required();
        }
        for (CLI::App *command : {list_, show_}) {
            command->add_flag("--json", options_.json, "one JSON document");
        }
    }

    // Everything behind the first "--" is the command of run, and none of our options.
    void parse(int argc, const char *const *argv) {
        std::vector<std::string> words(argv + 1, argv + argc);
        const auto mark = std::find(words.begin(), words.end(), "--");
        const bool marked = mark != words.end();
        if (marked) options_.command.assign(mark + 1, words.end());
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
        if (run_->parsed() && options_.command.empty()) {
            throw CLI::RequiredError("run: -- COMMAND");
        }
        if (!run_->parsed() && marked) throw CLI::ExtrasError({"--"});
        options_.settings.quiesce = !options_.no_quiesce;
        options_.settings.log_file = options_.log.file;
        options_.settings.state = absolute_path(options_.settings.state);
    }

    int end(const CLI::ParseError &error) { return app_.exit(error); }

    // The chosen command. Throws Failure.
    void perform() {
        if (list_->parsed()) return list();
        if (show_->parsed()) return show();
        if (geteuid() != 0) {
            throw Failure(Step::check, ExitCode::permission, "only root can work on snapshots");
        }
        log::set_up(options_.log);
        signals::install();
        const bool begins = run_->parsed() || freeze_->parsed();
        if (!begins && !Catalogue::exists(options_.settings.state)) throw no_such_snapshot();
        Catalogue catalogue(options_.settings.state, begins);
        Cycle cycle(options_.settings, catalogue);
        if (run_->parsed()) cycle.run(options_.paths, options_.command);
        if (freeze_->parsed())
            printf("%lld\n", static_cast<long long>(cycle.freeze(options_.paths)));
        if (mount_->parsed()) {
            for (const std::string &copy : cycle.mount(options_.id)) printf("%s\n", copy.c_str());
        }
        if (release_->parsed()) cycle.release(options_.id);
    }

  private:
    void add_common() {
        Settings &settings = options_.settings;
        settings.method = path::method_library;
        settings.state = path::state_directory;
        settings.lock_wait = default_lock_wait;
        app_.add_option("--method", settings.method, "the method's library")->capture_default_str();
        app_.add_option("--state", settings.state, "folder of the catalogue and the copies")
            ->capture_default_str();
        app_.add_option("--log", options_.log.file, "append everything that is told to this file");
        app_.add_option("--lock-wait", settings.lock_wait,
                        "seconds to wait, at mount and release, for another process that owns "
                        "the array's mirrors")
            ->check(CLI::Range(0.0, longest_lock_wait))
            ->capture_default_str();
        app_.add_flag("-q,--quiet", options_.log.quiet, "no progress lines");
        app_.add_flag("-v", options_.log.level,
                      "show the method's lines: -v with the commands it runs, -vv with traces");
    }

    void add_freeze_options(CLI::App *command) {
        Settings &settings = options_.settings;
        settings.freeze_deadline = default_freeze_deadline;
        command->add_option("PATH", options_.paths, "file systems or devices to freeze")
            ->required();
        command->add_option("--config", settings.config,
                            "the method's configuration, such as sync_at_start=1");
        command->add_option("--mount-at", settings.mount_at,
                            "where the copy is mounted (several paths: DIR/1, DIR/2, ...)");
        command
            ->add_option("--freeze-deadline", settings.freeze_deadline,
                         "seconds after which frozen file systems are thawed, come what may")
            ->check(CLI::Range(0.05, longest_freeze_deadline))
            ->capture_default_str();
        command->add_flag("--no-quiesce", options_.no_quiesce,
                          "do not freeze the file systems around the cut");
    }

    Failure no_such_snapshot() const {
        return Failure(Step::snapshot, ExitCode::no_such_snapshot,
                       "there is no snapshot " + std::to_string(options_.id));
    }

    void list() {
        std::vector<SnapshotRecord> shown;
        if (Catalogue::exists(options_.settings.state)) {
            for (auto &snapshot : Catalogue(options_.settings.state, false).all()) {
                if (options_.all || !is_over(snapshot.state)) shown.push_back(snapshot);
            }
        }
        fputs(listing(shown, options_.json).c_str(), stdout);
    }

    void show() {
        std::optional<SnapshotRecord> snapshot;
        if (Catalogue::exists(options_.settings.state)) {
            snapshot = Catalogue(options_.settings.state, false).find(options_.id);
        }
        if (!snapshot) throw no_such_snapshot();
        std::vector<Pair> pairs;
        for (const ObjectRecord &object : snapshot->objects) {
            for (const PairRecord &record : object.pairs) pairs.push_back(record.pair);
        }
        std::vector<long> now;
        try {
            now = read_pair_states(pairs, Step::states);
        } catch (const Failure &failure) {
            log::problem(failure.what());
        }
        fputs(description(*snapshot, now, options_.json).c_str(), stdout);
    }

    Options options_;
    CLI::App app_;
    CLI::App *run_ = nullptr;
    CLI::App *freeze_ = nullptr;
    CLI::App *mount_ = nullptr;
    CLI::App *release_ = nullptr;
    CLI::App *list_ = nullptr;
    CLI::App *show_ = nullptr;
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

}  // namespace

int run_command_line(int argc, const char *const *argv) {
    CommandLine line;
    try {
        line.parse(argc, argv);
        line.perform();
    } catch (const CLI::ParseError &error) {
        return line.end(error) == 0 ? 0 : static_cast<int>(ExitCode::usage);
    } catch (const Failure &failure) {
        fflush(stdout);
        tell(failure);
        return static_cast<int>(failure.code);
    }
    return fflush(stdout) == 0 ? 0 : static_cast<int>(ExitCode::failed);
}

}  // namespace fimctl
