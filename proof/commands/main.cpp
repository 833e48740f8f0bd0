// The row "commands": every host command fails in turn, in every scenario.
//
// A point is SCENARIO/PROCESS/COMMAND#CALL/FAULT: the call is the first, a middle and the last one
// of the command lines of one form in the process. It holds when the calls of the process gave what
// proof/expected/commands says, what was left is as it says, a repetition in a new process went as
// it says, and nothing happened that never may.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>

#include "proof/commands/bench.h"
#include "proof/commands/checks.h"
#include "proof/commands/quiesce.h"
#include "proof/kit/expectations.h"
#include "proof/kit/row.h"

namespace proof {
namespace {

constexpr size_t quick_points = 24;

struct Point {
    const Scenario *scenario;  // null: the exported names
    size_t process;
    Command command;
    Fault fault;
    std::string site;  // SCENARIO/PROCESS/COMMAND#CALL
    std::string fault_name, kind;
};

struct NamedFault {
    const char *name;
    Fault fault;
};

constexpr size_t none_read = 0;

const std::vector<NamedFault> &faults_of_all() {
    static const std::vector<NamedFault> all = {
        {"status-1", {"exit", 1, false}},
        {"status-1-for-good", {"exit", 1, true}},
        {"status-2", {"exit", 2, false}},
        {"status-32", {"exit", 32, false}},
        {"status-126", {"exit", 126, false}},
        {"status-127", {"exit", 127, false}},
        {"status-255", {"exit", 255, false}},
        {"done-but-status-1", {"done", 1, false}},
        {"killed-by-9", {"signal", 9, false}},
        {"killed-by-11", {"signal", 11, false}},
        {"killed-by-15-for-good", {"signal", 15, true}},
        {"hangs-until-killed", {"hang", 9, false}},
        {"missing", {"missing", 0, true}},
        {"not-executable", {"denied", 0, true}},
        {"status-1-and-10-MiB", {"noise", 1, false}},
    };
    return all;
}

// A command that does its work and says too much about it: nothing may differ from a good run.
constexpr char loud[] = "10-MiB";

// Faults that most calls do not tell apart.
std::string kind_of(const std::string &fault) {
    if (fault.starts_with("killed") || fault.starts_with("hangs")) return "killed";
    if (fault.starts_with("output-cut")) return "cut";
    if (fault.starts_with("output")) return "output";
    if (fault == "missing" || fault == "not-executable" || fault.ends_with("for-good")) {
        return "for-good";
    }
    return "status";
}

// The faults from which tables are drawn up; the others of a kind are expected to end like them.
bool stands_for_its_kind(const std::string &fault) {
    for (const char *one :
         {loud, "status-1", "done-but-status-1", "killed-by-9", "status-1-for-good",
          "killed-by-15-for-good", "missing", "output-empty", "output-binary", "output-cut-1"}) {
        if (fault == one) return true;
    }
    return false;
}

std::vector<std::pair<std::string, Fault>> faults_of(const Command &command, bool every_byte) {
    std::vector<std::pair<std::string, Fault>> faults;
    for (const NamedFault &one : faults_of_all()) faults.emplace_back(one.name, one.fault);
    if (command.output == none_read) return faults;
    faults.emplace_back("output-empty", Fault{"empty", 0, false});
    faults.emplace_back("output-10-MiB", Fault{"large", 0, false});
    faults.emplace_back("output-binary", Fault{"binary", 0, false});
    // Every byte once a command line; elsewhere where it hurts.
    for (size_t cut = 1; cut < command.output; ++cut) {
        const bool ends = cut == 1 || cut == command.output / 2 || cut + 1 == command.output;
        if (!every_byte && !ends) continue;
        faults.emplace_back("output-cut-" + std::to_string(cut),
                            Fault{"cut", static_cast<long>(cut), false});
    }
    return faults;
}

// The first, a middle and the last call of every form.
std::vector<std::pair<std::string, Command>> calls_of(const std::vector<Command> &commands) {
    std::map<std::string, std::vector<Command>> forms;
    Words order;
    for (const Command &command : commands) {
        if (forms[command.form].empty()) order.push_back(command.form);
        forms[command.form].push_back(command);
    }
    std::vector<std::pair<std::string, Command>> calls;
    for (const std::string &form : order) {
        const std::vector<Command> &all = forms[form];
        std::string name = form;
        std::replace(name.begin(), name.end(), ' ', '_');
        calls.emplace_back(name + "#first", all.front());
        if (all.size() > 2) calls.emplace_back(name + "#middle", all[all.size() / 2]);
        if (all.size() > 1) calls.emplace_back(name + "#last", all.back());
    }
    return calls;
}

// The place of a point in the table. One that is well ends like every other of its process.
std::string place_of(const Point &point) {
    if (point.fault_name != loud) return point.site;
    return point.scenario->name + "/" + point.scenario->processes[point.process].name + "/any";
}

class Commands {
  public:
    // state: where the calls of a scenario are put down that has no list yet.
    Commands(const std::string &programs, std::filesystem::path state)
        : state_(std::move(state)), quiesce_(programs) {
        add_points(nullptr, 0, "quiesce/names", quiesce_.commands(), CommandScenario());
        for (const CommandScenario &one : command_scenarios()) {
            const Scenario &scenario = one.scenario;
            benches_.emplace(scenario.name, std::make_unique<CommandBench>(one));
            for (size_t i = 0; i < scenario.processes.size(); ++i) add_points(one, i);
            benches_.at(scenario.name)->end();
        }
    }
    const Words &points() const { return order_; }
    const Point &point(const std::string &id) const { return points_.at(id); }
    Result run(const std::string &id) {
        const Point &point = points_.at(id);
        if (point.scenario == nullptr) return quiesce_.run(point.command, point.fault);
        keep_one(point.scenario->name);
        return benches_.at(point.scenario->name)->run(point.process, point.command, point.fault);
    }

  private:
    void add_points(const CommandScenario &one, size_t process) {
        const Scenario &scenario = one.scenario;
        add_points(&scenario, process, scenario.name + "/" + scenario.processes[process].name,
                   benches_.at(scenario.name)->commands(process, state_), one);
    }
    void add_points(const Scenario *scenario, size_t process, const std::string &place,
                    const std::vector<Command> &commands, const CommandScenario &one) {
        for (const auto &[call, command] : calls_of(commands)) {
            if (!is_looked_at(command, one)) continue;
            const std::string site = place + "/" + call;
            const bool every_byte = cut_everywhere_.insert(command.form).second;
            auto faults = faults_of(command, every_byte);
            if (scenario != nullptr && command.output == none_read)
                faults.emplace_back(loud, Fault{"loud", 0, false});
            for (const auto &[name, fault] : faults) {
                if (one.shell_is_replaced && kind_of(name) != "killed") continue;
                const std::string id = site + "/" + name;
                points_.emplace(
                    id, Point{scenario, process, command, fault, site, name, kind_of(name)});
                order_.push_back(id);
            }
        }
    }
    static bool is_looked_at(const Command &command, const CommandScenario &one) {
        // The programs of file systems are run without a shell.
        if (one.shell_is_replaced && !is_run_by_shell(command)) return false;
        return one.only.empty() ||
               std::find(one.only.begin(), one.only.end(), command.form) != one.only.end();
    }
    // Points come scenario by scenario, and a world costs memory.
    void keep_one(const std::string &scenario) {
        for (auto &[name, bench] : benches_) {
            if (name != scenario) bench->end();
        }
    }

    std::filesystem::path state_;
    std::set<std::string> cut_everywhere_;  // forms whose output is cut at every byte somewhere
    QuiesceBench quiesce_;
    std::map<std::string, std::unique_ptr<CommandBench>> benches_;
    std::map<std::string, Point> points_;
    Words order_;
};

int run_row(int argc, char **argv) {
    const Options options =
        options_of(argc, argv, "Every host command that the method runs fails in turn.");
    if (geteuid() != 0) return Row::cannot_run("it makes worlds of the lab, which needs root");
    Row row("commands", options, shipped_libraries());
    const bool records = getenv("TFPROOF_RECORD") != nullptr;
    const Expectations expected(TF_SOURCE_DIR "/proof/expected/commands/outcomes");
    SeenOutcomes recorded;
    Commands all(TF_BINARY_DIR "/bin", options.state);
    for (const std::string &id : row.choose(all.points(), quick_points)) {
        const Point &point = all.point(id);
        if (records && !stands_for_its_kind(point.fault_name)) continue;
        Result result = all.run(id);
        if (records) {
            recorded.add(place_of(point), point.fault_name, point.kind, result.line);
        } else {
            const std::string why =
                expected.differs(place_of(point), point.fault_name, point.kind, result.line);
            if (!why.empty()) result.wrong.push_back(why);
        }
        if (row.verbose()) printf("%s\n    %s\n", id.c_str(), result.line.c_str());
        std::string whole;
        for (const std::string &one : result.wrong) whole += (whole.empty() ? "" : "\n    ") + one;
        if (whole.empty()) {
            row.held(id);
        } else {
            row.failed(id, whole);
        }
    }
    if (records) std::ofstream(options.state / "recorded") << recorded.lines();
    return row.finish("commands of tools x faults");
}

}  // namespace
}  // namespace proof

int main(int argc, char **argv) {
    return proof::run_row(argc, argv);
}
