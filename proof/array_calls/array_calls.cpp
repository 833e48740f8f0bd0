// The row "array calls": in every scenario every call of the array fails in turn, or lies.
//
// A point is SCENARIO/PROCESS/SITE/KIND/CALL/SCOPE: what is done (below) with which call of the
// site (first, middle, last), and whether with that one alone (once) or with all calls of that
// function from it on (function). With --record SCENARIO at the end what comes there is put into
// the expected table instead of being compared.
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <set>

#include "proof/kit/expected.h"
#include "proof/kit/faulted_run.h"
#include "proof/kit/row.h"
#include "proof/kit/scenario_parts.h"

namespace proof {
namespace {

constexpr size_t quick_points = 60;

// One way in which a call goes wrong.
struct Kind {
    const char *name, *fate;
    long value;
    const char *word;
    enum { every, controls, shows, silent } functions;  // of which functions
    // Where: at the first, a middle and the last call, and at the first one from there on; at the
    // first one in both ways; or at the first one alone, and not again where a later scenario or
    // process comes by the same site, since what is told apart by it is the code and not the way.
    enum { thorough, first, once_a_site } where;
};

const Kind kinds[] = {
    // A code of the array's, before the effect, and after it.
    {"114", "fail", 114, "-", Kind::every, Kind::thorough},
    {"114_after", "fail_after", 114, "-", Kind::every, Kind::thorough},
    // A code that the array has no text for.
    {"114_mute", "fail", 114, "mute", Kind::every, Kind::once_a_site},
    // What a wrapper answers for a function that the library lacks, and a code below 0.
    {"14", "fail", 14, "-", Kind::every, Kind::once_a_site},
    {"-1", "fail", -1, "-", Kind::every, Kind::once_a_site},
    // A split is still finishing: controls wait, everything else has failed.
    {"1012", "fail", 1012, "-", Kind::every, Kind::once_a_site},
    {"1013", "fail", 1013, "-", Kind::every, Kind::once_a_site},
    {"1012_after", "fail_after", 1012, "-", Kind::controls, Kind::once_a_site},
    {"1012_on", "fail", 1012, "-", Kind::controls, Kind::first},
    // Answers that lie.
    {"nothing", "lie", 0, "nothing", Kind::silent, Kind::first},
    {"empty", "lie", 0, "empty", Kind::shows, Kind::first},
    {"unterminated", "lie", 0, "unterminated", Kind::shows, Kind::once_a_site},
    {"counts", "lie", 0, "counts", Kind::shows, Kind::once_a_site},
    {"negative_counts", "lie", 0, "negative", Kind::shows, Kind::once_a_site},
    {"state_1", "lie", 0, "state:1", Kind::shows, Kind::first},
    {"state_3", "lie", 0, "state:3", Kind::shows, Kind::first},
    {"state_7", "lie", 0, "state:7", Kind::shows, Kind::once_a_site},
    {"state_99", "lie", 0, "state:99", Kind::shows, Kind::once_a_site},
};

bool is_about(const Kind &kind, const std::string &function) {
    const bool shows = function.ends_with("Show");
    switch (kind.functions) {
    case Kind::controls:
        return function.ends_with("BcvControl");
    case Kind::shows:
        return shows;
    case Kind::silent:
        return !shows;
    default:
        return true;
    }
}

// The scenarios with an array whose time passes by the sleeps of the processes alone, and which
// takes its time in some of them, so that what is polled is met, too.
const std::vector<Scenario> &slow_scenarios() {
    static const std::vector<Scenario> all = [] {
        const std::map<std::string, std::string> settings = {
            {"block_device", "tfarray rate 1; tfarray split-time 3"},
            {"two_objects", "tfarray rate 1"},
            {"multipath", "tfarray rate 8"},
            {"association", "tfarray rate 1; tfarray split-time 2; tfarray background-time 15"}};
        std::vector<Scenario> slow = scenarios();
        for (Scenario &one : slow) {
            one.prepare.push_back("tfarray clock stop");
            const auto found = settings.find(one.name);
            if (found != settings.end()) one.prepare.push_back(found->second);
            // An establish in full that is under way is not begun again: it is waited for.
            if (one.name == "multipath") one.processes[0].repair = {"tfarray clock advance 60"};
        }
        return slow;
    }();
    return all;
}

struct Point {
    const Scenario *scenario;
    size_t process;
    Site site;
    const Kind *kind;
    size_t call;
    std::string which, scope;

    // Without the kind of call, which is the same for all.
    std::string section() const {
        return scenario->processes[process].name + " " + site.name.substr(site.name.find(':') + 1);
    }
    std::string key() const { return std::string(kind->name) + "/" + which + "/" + scope; }
    std::string name() const { return scenario->name + "/" + section() + "/" + key(); }
    Plan plan() const { return {"array", site, kind->fate, kind->value, kind->word, call, scope}; }
};

// What the array's word makes of one pair of a group leaves the others restored, and those it
// refuses to restore again: an administrator has to split them first. docs/testing.md lists it.
Words repair_of(const Point &point) {
    const bool is_it = point.scenario->name == "restore" && point.key() == "state_1/first/once" &&
                       point.site.name.ends_with(">prepare_pair>show_pair_state>show_primary") &&
                       point.scenario->processes[point.process].name == "restore";
    if (!is_it) return {};
    return {part::split("000184500123 00A1 01A1"), part::split("000184500123 00A2 01A2"),
            part::split("000184500123 00A3 01A3"), part::let_the_array_settle};
}

void add_points(const Scenario &scenario, size_t process, const Site &site, bool known,
                std::map<std::string, Point> *points, std::vector<std::string> *names) {
    const std::pair<const char *, size_t> calls[] = {
        {"first", 1},
        {"middle", site.calls > 2 ? (site.calls + 1) / 2 : 0},
        {"last", site.calls > 1 ? site.calls : 0}};
    for (const Kind &kind : kinds) {
        if (!is_about(kind, site.function) || (known && kind.where == Kind::once_a_site)) continue;
        for (const auto &[which, call] : calls) {
            if (call == 0 || (call > 1 && kind.where != Kind::thorough)) continue;
            for (const char *scope : {"once", "function"}) {
                const bool from_here_on = strcmp(scope, "function") == 0;
                if (from_here_on && (call > 1 || kind.where == Kind::once_a_site)) continue;
                Point point = {&scenario, process, site, &kind, call, which, scope};
                names->push_back(point.name());
                points->emplace(names->back(), std::move(point));
            }
        }
    }
}

class ArrayCalls {
  public:
    ArrayCalls(Options options, const char *recorded)
        : recorded_scenario_(recorded),
          row_("array_calls", std::move(options), shipped_libraries()) {}

    int run() {
        std::vector<std::string> names;
        for (const Scenario &one : slow_scenarios()) {
            collect(one, &names);
        }
        for (const std::string &name : row_.choose(names, quick_points))
            try_point(points_.at(name));
        if (recorded_scenario_ != nullptr) expected_.write();
        return row_.finish(std::to_string(sites_) + " sites (" + std::to_string(known_.size()) +
                           " by name) in " + std::to_string(slow_scenarios().size()) +
                           " scenarios");
    }

  private:
    void collect(const Scenario &one, std::vector<std::string> *names) {
        benches_[one.name] = std::make_unique<Bench>(one, "array");
        Bench &bench = *benches_[one.name];
        for (size_t i = 0; i < one.processes.size(); ++i) {
            const bool left_out = recorded_scenario_ != nullptr && one.name != recorded_scenario_;
            for (const Site &site : bench.sites(i)) {
                const bool known = !known_.insert(site.name).second;
                if (!left_out) add_points(one, i, site, known, &points_, names);
            }
            sites_ += bench.sites(i).size();
        }
    }

    void try_point(const Point &point) {
        try {
            Bench::Checks checks;
            checks.repair = repair_of(point);
            judge(point,
                  benches_.at(point.scenario->name)->run(point.process, point.plan(), checks));
        } catch (const std::exception &error) {
            benches_.at(point.scenario->name)->renew();
            row_.failed(point.name(), error.what());
        }
    }

    void judge(const Point &point, const Outcome &outcome) {
        const std::string came = outcome.line();
        if (row_.verbose()) tell(came, outcome);
        if (recorded_scenario_ != nullptr) record(point, came);
        std::string why;
        for (const std::string &one : outcome.wrong) why += one + "\n";
        if (recorded_scenario_ == nullptr) {
            const std::string *wanted =
                expected_.find(point.scenario->name, point.section(), point.key());
            if (wanted == nullptr) why += "nothing is expected; it gave " + came + "\n";
            if (wanted != nullptr && *wanted != came)
                why += "expected " + *wanted + "\nit gave  " + came + "\n";
        }
        if (why.empty())
            row_.held(point.name());
        else
            row_.failed(point.name(), why);
    }

    // Written in between, since it takes long.
    void record(const Point &point, const std::string &came) {
        expected_.put_down(point.scenario->name, point.section(), point.key(), came);
        if (++recorded_ % 50 == 0) expected_.write();
    }

    static void tell(const std::string &came, const Outcome &outcome) {
        for (const test::Call &call : outcome.faulted.calls) {
            for (const std::string &line : call.log) printf("    %s\n", line.c_str());
            printf("  %s %d %d %s\n", call.step.c_str(), call.status, call.number,
                   call.errmsg.c_str());
        }
        printf("%s\n", came.c_str());
    }

    const char *recorded_scenario_;  // null: nothing is recorded
    Row row_;
    Expected expected_{TF_SOURCE_DIR "/proof/expected/array_calls"};
    std::map<std::string, std::unique_ptr<Bench>> benches_;
    std::map<std::string, Point> points_;
    std::set<std::string> known_;  // the names of all sites
    size_t sites_ = 0, recorded_ = 0;
};

}  // namespace
}  // namespace proof

int main(int argc, char **argv) {
    const char *recorded = nullptr;
    if (argc > 2 && strcmp(argv[argc - 2], "--record") == 0) {
        recorded = argv[argc - 1];
        argv[argc -= 2] = nullptr;
    }
    try {
        return proof::ArrayCalls(
                   proof::options_of(argc, argv, "Every call of the array fails in turn, or lies"),
                   recorded)
            .run();
    } catch (const std::exception &error) {
        fprintf(stderr, "array calls: %s\n", error.what());
        return proof::row_missed;
    }
}
