#include "proof/commands/bench.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "proof/commands/checks.h"
#include "proof/kit/agent.h"
#include "proof/kit/faulted_run.h"
#include "proof/kit/processes.h"

namespace proof {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::Phase;

constexpr double limit = 60;  // real seconds of one process

constexpr const char *tool_paths[] = {"/usr/sbin/qzdg",
                                      "/usr/sbin/qzdisk",
                                      "/usr/sbin/qzdctl",
                                      "/usr/sbin/qzvol",
                                      "/usr/sbin/qzvset",
                                      "/usr/sbin/lockfs",
                                      "/usr/sbin/fsck",
                                      "/usr/bin/mount",
                                      "/usr/bin/umount",
                                      "/usr/quill/tessera/bin/tqtpcinfo",
                                      "/usr/quill/tessera/bin/tqdgclone",
                                      "/usr/quill/tessera/bin/tqdgclone_script"};

bool succeeded(const Phase &phase) {
    if (phase.status != 0) return false;
    return std::all_of(phase.calls.begin(), phase.calls.end(),
                       [](const Call &call) { return call.status == 0; });
}

std::string told(const Phase &phase) {
    std::string text = phase.status != 0 ? "ended with " + std::to_string(phase.status) : "";
    for (const Call &call : phase.calls) {
        if (!text.empty()) text += "; ";
        text += call.step + " " + std::to_string(call.status);
        if (call.status == 0 && call.number < 0) continue;
        text += " " + std::to_string(call.number) + " " + message_id(call.errmsg);
        if (call.errmsg != call.logmsg) text += " " + message_id(call.logmsg);
    }
    return text;
}

std::string sorted(const std::string &text) {
    std::istringstream in(text);
    Words lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
    std::sort(lines.begin(), lines.end());
    std::string result;
    for (const std::string &line : lines) result += line;
    return result;
}

// The lines that only one of the two has.
std::string difference(const std::string &before, const std::string &after) {
    const auto lacks = [](const std::string &text, const std::string &of, const char *sign) {
        std::istringstream in(of);
        std::string found;
        for (std::string line; std::getline(in, line);) {
            if (("\n" + text).find("\n" + line + "\n") == std::string::npos) {
                found += std::string("\n      ") + sign + " " + line;
            }
        }
        return found;
    };
    return lacks(after, before, "-") + lacks(before, after, "+");
}

std::string whole(const Phase &phase) {
    std::string text = phase.output;
    for (const Call &call : phase.calls) {
        if (!call.errmsg.empty()) text += "; " + call.step + ": " + call.errmsg;
    }
    return text;
}

Command read_command(const std::string &line) {
    std::istringstream in(line);
    Command command;
    in >> command.number >> command.tool;
    command.form = command.tool;
    for (std::string word; in >> word;) {
        if (is_fixed_word(word)) command.form += " " + word;
    }
    return command;
}

}  // namespace

bool is_fixed_word(const std::string &word) {
    static const Words known = {"import", "deport", "list", "startall", "define",
                                "online", "enable", "RAW",  "QzVM"};
    return (word.size() > 1 && word[0] == '-') ||
           std::find(known.begin(), known.end(), word) != known.end();
}

std::string tool_path(const std::string &tool) {
    for (const std::string path : tool_paths) {
        if (path.substr(path.rfind('/') + 1) == tool) return path;
    }
    throw std::runtime_error("no tool " + tool);
}

CommandBench::CommandBench(const CommandScenario &scenario)
    : all_(scenario), scenario_(scenario.scenario) {}
CommandBench::~CommandBench() = default;

void CommandBench::end() {
    world_.reset();
}

void CommandBench::install_tools(const std::string &host) {
    world_->on(host);
    run_lines(all_.everywhere);
    std::string line = "set -e; cd /usr/lib; mkdir -p tfproof/real; cp /exchange/stand_in tfproof;";
    for (const std::string path : tool_paths) {
        line += " if [ -e " + path + " ]; then mv " + path + " tfproof/real; cp tfproof/stand_in " +
                path + "; fi;";
    }
    world_->host(line);
}

void CommandBench::start() {
    if (world_ != nullptr) return;
    world_ = std::make_unique<test::LabWorld>(scenario_.world, scenario_.hosts);
    world_->start();
    install_agent(*world_);
    install_process_list(*world_);
    fs::copy_file(TF_BINARY_DIR "/bin/proof_stand_in", world_->exchange() / "stand_in");
    for (const std::string &host : scenario_.hosts) install_tools(host);
    world_->on(scenario_.hosts.front());
    run_lines(scenario_.prepare);
    settle();
    before_ = picture();
    usleep(200'000);  // what the preparation began may still be on its way out
    for (std::string next = picture(); next != before_; next = picture()) before_ = next;
}

void CommandBench::settle() {
    world_->on(scenario_.hosts.front());
    run_lines(scenario_.settle);
    world_->on(scenario_.hosts.back());
    run_lines(all_.settle_there);
}

std::string CommandBench::picture() {
    std::string text;
    for (const std::string &host : scenario_.hosts) {
        world_->on(host);
        // A restored file system comes back in another order.
        text +=
            "host " + host + "\n" +
            sorted(world_->picture() + world_->host(std::string(list_processes) + " 500 || true"));
    }
    world_->on(scenario_.hosts.front());
    for (const std::string &line : scenario_.content) text += world_->host(line);
    world_->array("check");
    return text;
}

void CommandBench::run_lines(const Words &lines) {
    for (const std::string &line : lines) world_->host(line);
}

Phase CommandBench::process(size_t number) {
    start();
    const Process &one = scenario_.processes[number];
    world_->on(one.host);
    run_lines(one.before);
    Phase phase = world_->try_phase(one.steps, limit);
    if (succeeded(phase)) run_lines(one.after);
    return phase;
}

// The commands of a process from the lines of the stand-ins: of the calls, "NUMBER NAME WORD...",
// and of what is read of them, "NUMBER BYTES".
std::vector<Command> CommandBench::recorded() {
    std::istringstream sizes(world_->host("cat /usr/lib/tfproof/sizes"));
    std::map<size_t, size_t> size_of;
    for (size_t number = 0, bytes = 0; sizes >> number >> bytes;) size_of[number] = bytes;
    std::istringstream calls(world_->host("cat /usr/lib/tfproof/calls"));
    std::vector<Command> commands;
    for (std::string line; std::getline(calls, line);) {
        commands.push_back(read_command(line));
        commands.back().output = size_of[commands.back().number];
    }
    world_->host("cd /usr/lib/tfproof && rm calls plan sizes");
    return commands;
}

void CommandBench::record() {
    start();
    for (const Process &one : scenario_.processes) {
        world_->on(one.host);
        run_lines(one.before);
        world_->host(
            "cd /usr/lib/tfproof; >calls; >sizes; echo '0 measure 0 good /none any' >plan");
        const Phase phase = world_->try_phase(one.steps, limit);
        if (!succeeded(phase)) {
            throw std::runtime_error(scenario_.name + "/" + one.name + " fails without a fault: " +
                                     told(phase) + "\n" + whole(phase));
        }
        commands_.push_back(recorded());
        run_lines(one.after);
    }
    settle();
    if (const std::string after = picture(); after != before_) {
        throw std::runtime_error(
            scenario_.name + " changes its world without a fault:" + difference(before_, after));
    }
}

// A line a command: "PROCESS NUMBER BYTES FORM".
bool CommandBench::read(const fs::path &kept) {
    std::ifstream in(kept);
    if (!in) return false;
    commands_.assign(scenario_.processes.size(), {});
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("#")) continue;
        std::istringstream words(line);
        size_t process = 0;
        Command command;
        words >> process >> command.number >> command.output >> std::ws;
        std::getline(words, command.form);
        command.tool = command.form.substr(0, command.form.find(' '));
        commands_.at(process).push_back(command);
    }
    return true;
}

void CommandBench::write(const fs::path &kept) const {
    std::ofstream out(kept);
    for (size_t process = 0; process < commands_.size(); ++process) {
        for (const Command &command : commands_[process]) {
            out << process << " " << command.number << " " << command.output << " " << command.form
                << "\n";
        }
    }
}

const std::vector<Command> &CommandBench::commands(size_t process, const fs::path &folder) {
    if (!commands_.empty()) return commands_.at(process);
    // Another shell runs the same commands.
    const std::string name = scenario_.name.substr(0, scenario_.name.find("_with_replaced_shell"));
    if (!read(fs::path(TF_SOURCE_DIR "/proof/expected/commands/calls") / name)) {
        record();
        write(folder / name);
    }
    return commands_.at(process);
}

Phase CommandBench::faulted(size_t number, const Command &command, const Fault &fault) {
    const Process &one = scenario_.processes[number];
    const std::string path = tool_path(command.tool);
    world_->on(one.host);
    run_lines(one.before);
    std::string line = ">/usr/lib/tfproof/calls; echo '" + std::to_string(command.number) + " " +
                       fault.kind + " " + std::to_string(fault.value) + " " +
                       (fault.for_good ? "good " : "once ") + path + " " + command.form +
                       "' >/usr/lib/tfproof/plan;";
    // Nobody comes before the first command to hide its tool.
    if (command.number == 1 && fault.kind == "missing")
        line += "mv " + path + " " + path + ".hidden";
    if (command.number == 1 && fault.kind == "denied") line += "chmod 644 " + path;
    world_->host(line);
    forget_agent_lines(*world_);
    Phase phase = world_->try_phase(one.steps, limit, 2, agent_environment(only_records));
    // A call that finds no tool writes no line.
    const bool hides = fault.kind == "missing" || fault.kind == "denied";
    reached_ = static_cast<size_t>(atoi(world_->host("wc -l </usr/lib/tfproof/calls").c_str())) +
                   (hides ? 1 : 0) >=
               command.number;
    world_->host("cd /usr/lib/tfproof; rm -f calls plan; chmod 755 " + path + "* ; [ ! -e " + path +
                 ".hidden ] || mv " + path + ".hidden " + path);
    if (succeeded(phase)) run_lines(one.after);
    return phase;
}

// What a failure leaves for the next process, on the host where it happened and on the array.
std::string CommandBench::left() {
    return world_->host(
        "printf 'pairs'; tfarray show --json | tr ',{}' '\\n' | sed -n 's/^ *\"state\": *//p' |"
        " tr '\\n' ' ' | sed 's/^/ /;s/ $//'; printf '; locks %s; files %s; mounts %s; groups %s'"
        " $(ls -A /usr/quill/tessera/online_util/db_cntl 2>/dev/null | wc -l)"
        " $(ls -A /tmp | wc -l) $(grep -c ' /copy' /proc/self/mounts)"
        " $(/usr/lib/tfproof/real/qzdg list | grep -c 'clone.*imported')");
}

// Loop devices and processes take a moment to go.
bool CommandBench::is_as_before() {
    for (int look = 0; look < 4; ++look) {
        if (picture() == before_) return true;
        usleep(200'000);
    }
    return false;
}

// How many counter files there were on all hosts; they are removed.
std::string CommandBench::counter_files() {
    int count = 0;
    for (const std::string &host : scenario_.hosts) {
        world_->on(host);
        count += atoi(world_
                          ->host("cd /usr/quill/tessera/online_util/db_cntl; ls -A | wc -l;"
                                 " rm -f __LOCKFILE*")
                          .c_str());
    }
    return std::to_string(count);
}

// The same again without a fault unless it succeeded all the same, and the rest.
std::string CommandBench::finish(size_t number, const Phase &phase, Result *result) {
    size_t next = number + 1;
    std::string tale;
    if (!succeeded(phase)) {
        run_lines(scenario_.processes[number].repair);
        tale = "again well";
        if (const Phase again = process(number); !succeeded(again)) {
            tale = "again " + told(again) + ", then well";
            next = number;
            run_lines(all_.administrator);
        }
    }
    for (; next < scenario_.processes.size(); ++next) {
        const Phase later = process(next);
        if (succeeded(later)) continue;
        world_.reset();
        return tale + (tale.empty() ? "but " : ", but ") + scenario_.processes[next].name + " " +
               told(later);
    }
    settle();
    if (tale.empty()) tale = "all well";
    if (is_as_before()) return tale;
    // A counter file of a process that has ended is nobody's: the next owner takes it over. It
    // stays where its serial number was told wrongly.
    const std::string counters = counter_files();
    if (is_as_before()) return tale + ", " + counters + " counter files left";
    result->wrong.push_back("the world is another one:" + difference(before_, picture()));
    world_.reset();
    return tale + ", another world";
}

Result CommandBench::run(size_t number, const Command &command, const Fault &fault) {
    start();
    Result result;
    for (size_t i = 0; i < number; ++i) {
        const Phase before = process(i);
        if (!succeeded(before)) {
            throw std::runtime_error("before the fault: " + told(before) + whole(before));
        }
    }
    const Phase phase = faulted(number, command, fault);
    result.wrong = wrong_with(phase, command, fault, all_.shell_is_replaced);
    for (const std::string &what : wrong_at_the_end(agent_lines(*world_), phase.status)) {
        result.wrong.push_back(what);
    }
    if (!reached_) result.wrong.push_back("the call was not reached");
    result.line = told(phase) + " | " + left();
    result.line += " | " + finish(number, phase, &result);
    return result;
}

}  // namespace proof
