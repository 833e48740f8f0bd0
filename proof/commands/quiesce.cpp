#include "proof/commands/quiesce.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "proof/hostile_names/setting.h"

namespace proof {
namespace {

constexpr const char *tools[] = {"qzvset", "lockfs"};

std::string read_program(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), {}};
}

void install(const std::string &path, const std::string &program, mode_t mode) {
    if (!hostile::make_file(path, program) || chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("cannot install " + path);
    }
}

}  // namespace

// The programs are read before the roots hide them.
QuiesceBench::QuiesceBench(const std::string &programs)
    : roots_(programs),
      stand_in_(read_program(programs + "/proof_stand_in")),
      recorder_(read_program(programs + "/proof_recorder")) {}

// hidden: "missing TOOL" or "denied TOOL", from the first call on.
hostile::Seen QuiesceBench::run(const std::string &plan, const std::string &hidden) {
    const hostile::Setting setting;
    return roots_.run(
        [&] {
            hostile::set_up(setting);
            for (const std::string tool : tools) {
                install("/usr/lib/tfproof/real/" + tool, recorder_, 0755);
                install(tool_path(tool), stand_in_, hidden == "denied " + tool ? 0644 : 0755);
                if (hidden == "missing " + tool) remove(tool_path(tool).c_str());
            }
            hostile::make_file("/usr/lib/tfproof/plan", plan + "\n");
            hostile::make_file("/usr/lib/tfproof/calls");
            hostile::make_file("/usr/lib/tfproof/sizes");
            // lockfs writes where the process does.
            const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(nowhere, STDOUT_FILENO);
            dup2(nowhere, STDERR_FILENO);
        },
        [&] { return hostile::operation("quiesce").run(setting); });
}

const std::vector<Command> &QuiesceBench::commands() {
    if (!commands_.empty()) return commands_;
    const hostile::Seen seen = run("0 none 0 once /none any", "");
    if (seen.status != 0) throw std::runtime_error("quiesce fails without a fault");
    for (const hostile::Words &words : seen.runs) {
        Command command;
        command.number = commands_.size() + 1;
        command.tool = command.form = words[0];
        for (size_t i = 1; i < words.size(); ++i) {
            if (is_fixed_word(words[i])) command.form += " " + words[i];
        }
        // The heading, and a name.
        if (command.tool == "qzvset") command.output = 10;
        commands_.push_back(command);
    }
    return commands_;
}

Result QuiesceBench::run(const Command &command, const Fault &fault) {
    const bool hides = fault.kind == "missing" || fault.kind == "denied";
    const std::string plan = std::to_string(command.number) + " " + fault.kind + " " +
                             std::to_string(fault.value) + (fault.for_good ? " good " : " once ") +
                             tool_path(command.tool) + " " + command.form;
    const hostile::Seen seen =
        run(plan, hides && command.number == 1 ? fault.kind + " " + command.tool : "");
    Result result;
    result.line = seen.outcome;
    if (seen.status != 0) {
        result.wrong.push_back("the process ended with " + std::to_string(seen.status));
    }
    if (!seen.tripped.empty()) result.wrong.push_back("something was run: " + seen.tripped);
    for (const std::string &path : seen.changed) {
        if (path.starts_with("/usr/lib/tfproof/") || path.starts_with("/usr/sbin/")) continue;
        result.wrong.push_back("touched " + path);
    }
    return result;
}

}  // namespace proof
