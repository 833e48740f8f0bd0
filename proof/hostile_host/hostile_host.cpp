// The row "hostile host": every process of every scenario in surroundings that a framework may call
// from. What has to come of it stands in proof/expected/hostile_host (see proof/kit/outcomes.h; the
// surroundings stand in the place of a site).
//
//   hostile_host --full --record ...    writes what is seen into the tables that are missing, for a
//                                       person to read
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <stdexcept>

#include "proof/kit/faulted_run.h"
#include "proof/kit/outcomes.h"
#include "proof/kit/row.h"
#include "tests/lab_method/phase/surroundings.h"

namespace {

namespace fs = std::filesystem;
using proof::CallPoint;
using proof::OutcomeText;

constexpr size_t sample = 14;

fs::path table_of(const std::string &scenario) {
    return fs::path(TF_SOURCE_DIR) / "proof/expected/hostile_host" / scenario;
}

// A command that did its work and is taken for a failure leaves what it made: the copy stays
// imported on the backup host, until an administrator unmounts and deports it there.
constexpr char is_gone[] = "! qzdg list client1_datadg_clone >/dev/null 2>&1";
constexpr char deport_copy[] =
    "for v in vol1 vol3; do umount /copy/$v || true; done >/dev/null 2>&1;"
    " ! qzdg list client1_datadg_clone >/dev/null 2>&1 ||"
    " qzdg -n datadg deport client1_datadg_clone";

// The first rebuild of a world would have to define the disks, and say so, and later ones not.
constexpr char know_disks[] =
    "for d in c2t0d1 c2t0d2 c2t0d3; do"
    " qzdisk list $d >/dev/null 2>&1 || qzdisk define $d || exit 1; done";

// What a framework calls first is called in the surroundings, too: nothing before them.
const test::Words introduction = {"bare", "init", "1",        "1", "1", "set_locale",
                                  "null", "null", "set_logf", "1", "2", "query"};

// What the surroundings "other_locale" enter.
constexpr char make_locale[] =
    "mkdir -p /exchange/locale &&"
    " localedef --no-archive -i tr_TR -f UTF-8 /exchange/locale/tr_TR.UTF-8";

// A thaw that leaves the copy there has "nothing done".
const std::vector<proof::Scenario> &hostile_scenarios() {
    static const std::vector<proof::Scenario> all = [] {
        std::vector<proof::Scenario> made = proof::scenarios();
        for (proof::Scenario &one : made) {
            for (proof::Process &process : one.processes) {
                process.steps.insert(process.steps.begin(), introduction.begin(),
                                     introduction.end());
            }
            one.prepare.emplace_back(make_locale);
            if (one.name != "import") continue;
            for (proof::Process &process : one.processes) {
                if (process.host != "backup1") continue;
                process.before.emplace_back(know_disks);
                process.repair.emplace_back(deport_copy);
                if (process.name == "away") process.after.emplace_back(is_gone);
            }
        }
        return made;
    }();
    return all;
}

const proof::Scenario &hostile_scenario(const std::string &name) {
    for (const proof::Scenario &one : hostile_scenarios()) {
        if (one.name == name) return one;
    }
    throw std::runtime_error("there is no scenario " + name);
}

// All points by their names, those of one scenario together.
struct Points {
    std::vector<std::string> names;
    std::map<std::string, CallPoint> points;
    std::map<std::string, size_t> processes;  // the number of a point's process
};

// A scenario without a table has no points until somebody has read what it gives; it is named. Only
// such scenarios are recorded: a table that was read is not written over.
Points all_points(bool record, std::string *unread) {
    Points all;
    for (const proof::Scenario &scenario : hostile_scenarios()) {
        const bool has_table = fs::exists(table_of(scenario.name));
        if (record && has_table) continue;
        if (!record && !has_table) {
            *unread += (unread->empty() ? ", no table yet: " : " ") + scenario.name;
            continue;
        }
        for (size_t i = 0; i < scenario.processes.size(); ++i) {
            for (const std::string &name : phase::surroundings_names()) {
                const CallPoint point = {
                    scenario.name, scenario.processes[i].name, name, "-", "-", "-"};
                const std::string text = point.scenario + "/" + point.process + "/" + point.site;
                all.names.push_back(text);
                all.points[text] = point;
                all.processes[text] = i;
            }
        }
    }
    return all;
}

// Removes a flag from the arguments. Returns whether it was there.
bool take_flag(int *argc, char **argv, const char *flag) {
    for (int i = 1; i < *argc; ++i) {
        if (strcmp(argv[i], flag) != 0) continue;
        for (; i + 1 < *argc; ++i) argv[i] = argv[i + 1];
        argv[--*argc] = nullptr;
        return true;
    }
    return false;
}

// Whether nobody learns what became of a child.
bool loses_statuses(const std::string &surroundings) {
    return surroundings == "children_ignored" || surroundings == "children_unwaited";
}

bool tells_of_lost_status(const proof::Outcome &outcome) {
    return std::any_of(outcome.faulted.calls.begin(), outcome.faulted.calls.end(),
                       [](const test::Call &call) {
                           return call.logged_part("do_cmd: Command failed with status=255: ");
                       });
}

class HostileHost {
  public:
    HostileHost(proof::Row *row, bool record) : row_(row), record_(record) {}

    void try_all(const Points &all, const std::vector<std::string> &chosen) {
        for (const std::string &name : chosen) {
            const CallPoint &point = all.points.at(name);
            enter(point.scenario);
            const std::string wrong = try_whole_point(point, all.processes.at(name));
            if (wrong.empty()) {
                row_->held(name);
            } else {
                row_->failed(name, wrong);
            }
        }
        write_seen();
    }

  private:
    using Seen = std::map<std::string, std::vector<std::pair<CallPoint, OutcomeText>>>;

    // One world at a time.
    void enter(const std::string &scenario) {
        if (scenario == scenario_) return;
        write_seen();
        scenario_ = scenario;
        bench_ = std::make_unique<proof::Bench>(hostile_scenario(scenario), "array");
        table_ = std::make_unique<proof::OutcomeTable>(table_of(scenario));
    }

    // As soon as a scenario is over: a recording that is broken off keeps what it has.
    void write_seen() {
        for (const auto &[scenario, seen] : record_ ? seen_ : Seen()) {
            proof::OutcomeTable(table_of(scenario)).write(seen);
        }
        seen_.clear();
    }

    // What goes wrong around the process is this point's as well, and takes the world with it.
    std::string try_whole_point(const CallPoint &point, size_t process) {
        try {
            return try_point(point, process);
        } catch (const std::runtime_error &error) {
            bench_->renew();
            return error.what();
        }
    }

    std::string try_point(const CallPoint &point, size_t process) {
        const proof::Outcome outcome =
            bench_->run_in(process, {"TFPHASE_SURROUNDINGS=" + point.site});
        const OutcomeText seen = {outcome.line()};
        if (row_->verbose()) tell(outcome);
        seen_[point.scenario].emplace_back(point, seen);
        std::string wrong;
        for (const std::string &what : outcome.wrong) wrong += what + "\n    ";
        if (loses_statuses(point.site) && !tells_of_lost_status(outcome)) {
            wrong += "no command is told as failed with status 255\n    ";
        }
        if (record_) return wrong;
        const OutcomeText *const expected = table_->expected(point);
        if (expected == nullptr) return wrong + "nothing is expected; seen: " + seen[0];
        if (*expected != seen) wrong += "expected " + expected->front() + "\n    seen " + seen[0];
        return wrong;
    }

    static void tell(const proof::Outcome &outcome) {
        for (const test::Call &call : outcome.faulted.calls) {
            for (const std::string &line : call.log) printf("  %s\n", line.c_str());
            printf("%s: %d, error number %d, %s\n", call.step.c_str(), call.status, call.number,
                   call.errmsg.c_str());
        }
        printf("%s\n%s", outcome.line().c_str(), outcome.faulted.output.c_str());
    }

    proof::Row *row_;
    bool record_;
    std::string scenario_;
    std::unique_ptr<proof::Bench> bench_;
    std::unique_ptr<proof::OutcomeTable> table_;
    Seen seen_;
};

int run(int argc, char **argv) {
    const bool record = take_flag(&argc, argv, "--record");
    const proof::Options options =
        proof::options_of(argc, argv, "Every process in surroundings that are odd or narrow");
    if (geteuid() != 0) return proof::Row::cannot_run("worlds need root");
    proof::Row row("hostile_host", options, proof::shipped_libraries());
    std::string unread;
    const Points all = all_points(record, &unread);
    HostileHost(&row, record).try_all(all, row.choose(all.names, sample));
    return row.finish(std::to_string(phase::surroundings_names().size()) + " surroundings" +
                      unread);
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "hostile_host: %s\n", error.what());
        return proof::row_missed;
    }
}
