// locks and doctor: what the host has, looked at without touching it.
#include <cstdio>
#include <memory>

#include "fimctl/commands/command.h"
#include "fimctl/inspect/doctor.h"
#include "fimctl/inspect/lock_report.h"

namespace fimctl {
namespace {

struct Options {
    bool json = false;
    std::string client;
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

}  // namespace

void add_inspection_commands(Commands &commands) {
    const Common &common = commands.common();
    const auto options = std::make_shared<Options>();
    CLI::App *locked = commands.add("locks", "who owns the arrays' mirrors on this host",
                                    Access::reading, [options] { locks(*options); });
    CLI::App *examined =
        commands.add("doctor", "what this host has and lacks for snapshots", Access::reading,
                     [&common, options] { doctor(common, *options); });
    examined->add_option("--client", options->client,
                         "also look up this alternate backup host's configuration entries");
    for (CLI::App *command : {locked, examined}) {
        command->add_flag("--json", options->json, "one JSON document");
    }
}

}  // namespace fimctl
