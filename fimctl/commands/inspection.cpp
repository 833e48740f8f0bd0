// locks, doctor, plan: what the host has and what a snapshot would do, without touching anything.
#include <cstdio>
#include <memory>

#include "fimctl/commands/command.h"
#include "fimctl/inspect/doctor.h"
#include "fimctl/inspect/lock_report.h"
#include "fimctl/inspect/plan.h"

namespace fimctl {
namespace {

struct Options {
    bool json = false;
    std::string client;
    std::vector<std::string> paths;
};

void locks(const Options &options) {
    const HostLock host = read_host_lock();
    fputs(lock_report(host, read_counter_files(), options.json).c_str(), stdout);
}

void doctor(const Common &common, const Options &options) {
    const Findings findings = examine(common.settings, options.client);
    fputs(examination_report(findings, options.json).c_str(), stdout);
    if (findings.worst() == Verdict::fail) throw Ended{ExitCode::failed};
}

void plan(const Common &common, const Options &options) {
    const Plan made = make_plan(common.settings, options.paths);
    fputs(plan_report(made, options.json).c_str(), stdout);
    if (made.array_failed) throw Ended{ExitCode::array};
    if (made.is_prevented()) throw Ended{ExitCode::failed};
}

void add_plan(Commands &commands, const std::shared_ptr<Options> &options) {
    Common &common = commands.common();
    CLI::App *planned =
        commands.add("plan", "what a freeze of these paths would do; changes nothing",
                     Access::working, [&common, options] { plan(common, *options); });
    planned->add_option("PATH", options->paths, "file systems or devices")->required();
    planned->add_option("--mount-at", common.settings.mount_at, "where the copy would be mounted")
        ->check(trouble_of_folder)
        ->type_name("DIR");
    commands.configuration().add_options(planned, Scope::freezing);
    planned->add_flag("--json", options->json, "one JSON document");
}

}  // namespace

void add_inspection_commands(Commands &commands) {
    const Common &common = commands.common();
    const auto options = std::make_shared<Options>();
    CLI::App *locked = commands.add("locks", "who owns the arrays' mirrors on this host",
                                    Access::reading, [options] { locks(*options); });
    CLI::App *examined =
        commands.add("doctor", "what this host has and lacks for snapshots", Access::reading,
                     [&common, options] { doctor(common, *options); });
    examined
        ->add_option("--client", options->client,
                     "also look up this alternate backup host's configuration entries")
        ->type_name("HOST");
    add_plan(commands, options);
    for (CLI::App *command : {locked, examined}) {
        command->add_flag("--json", options->json, "one JSON document");
    }
}

}  // namespace fimctl
