#include "proof/commands/checks.h"

#include <algorithm>

namespace proof {
namespace {

using test::Call;

// The first line of a command's failure, and both dumps behind it.
bool tells_of_failure(const std::vector<std::string> &log, const std::string &beginning) {
    for (size_t i = 0; i < log.size(); ++i) {
        if (!log[i].starts_with(beginning)) continue;
        Words dumps;
        for (size_t at = i + 1; at < log.size() && dumps.size() < 4; ++at) {
            if (log[at].starts_with("--- ")) dumps.push_back(log[at]);
        }
        return dumps.size() == 4 && dumps[0].ends_with(" (stdout):") &&
               dumps[1].starts_with("--- End of file ") && dumps[2].ends_with(" (stderr):") &&
               dumps[3].starts_with("--- End of file ");
    }
    return false;
}

bool tells_of_failure(const test::Phase &phase, const std::string &beginning) {
    return std::any_of(phase.calls.begin(), phase.calls.end(), [&beginning](const Call &call) {
        return tells_of_failure(call.log, beginning);
    });
}

bool logs(const test::Phase &phase, const std::string &beginning) {
    for (const Call &call : phase.calls) {
        for (const std::string &line : call.log) {
            if (line.starts_with(beginning)) return true;
        }
    }
    return false;
}

}  // namespace

bool is_run_by_shell(const Command &command) {
    return command.tool != "fsck" && command.tool != "mount" && command.tool != "umount";
}

int exit_status(const Fault &fault, bool shell_is_replaced) {
    if (fault.kind == "signal" || fault.kind == "hang") {
        return shell_is_replaced ? 0 : 128 + static_cast<int>(fault.value);
    }
    if (fault.kind == "exit" || fault.kind == "done" || fault.kind == "noise") {
        return static_cast<int>(fault.value);
    }
    if (fault.kind == "missing") return 127;
    if (fault.kind == "denied") return 126;
    return 0;
}

std::vector<std::string> wrong_with(const test::Phase &phase, const Command &command,
                                    const Fault &fault, bool shell_is_replaced) {
    std::vector<std::string> wrong;
    if (phase.status == 128 + 9) wrong.push_back("the process hung");
    if (phase.status != 0) {
        wrong.push_back("the process ended with " + std::to_string(phase.status) + ": " +
                        phase.output);
    }
    for (const Call &call : phase.calls) {
        for (const std::string &what : call.changed) {
            wrong.push_back(call.step + " changed " + what);
        }
        if (call.errmsg != call.logmsg) {
            wrong.push_back(call.step + " left \"" + call.errmsg + "\" and \"" + call.logmsg +
                            "\"");
        }
    }
    if (!is_run_by_shell(command)) return wrong;
    // A site without a script of its own is the rule.
    const bool is_optional = command.tool == "tqdgclone_script" && fault.kind == "missing";
    const int status = is_optional ? 0 : exit_status(fault, shell_is_replaced);
    const std::string said = "do_cmd: Command failed with status=";
    const std::string line = tool_path(command.tool) + " ";
    if (status == 0 && logs(phase, said + "98: ")) wrong.push_back("the stand-in is broken");
    if (shell_is_replaced && logs(phase, said + std::to_string(128 + fault.value) + ": " + line)) {
        wrong.push_back("a command that a signal ended is told to have failed");
    }
    if (status != 0 && !tells_of_failure(phase, said + std::to_string(status) + ": " + line)) {
        wrong.push_back("nothing is logged of the failure, or not both dumps");
    }
    return wrong;
}

}  // namespace proof
