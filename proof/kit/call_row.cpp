#include "proof/kit/call_row.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "proof/kit/outcomes.h"
#include "proof/kit/row.h"

namespace proof {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::Phase;

// A place, with the first process that reaches it.
struct Place {
    std::string scenario, process, site, function;
    size_t calls = 0;
};

struct Point {
    CallPoint names;
    Way way;
    std::string leader = {};     // the fault that it is expected to end like
    bool stands_for_all = true;  // whether it is that fault itself
};

std::string function_of(const std::string &site) {
    const size_t colon = site.find(':'), at = site.find('@');
    return site.substr(colon + 1, at - colon - 1);
}

// A place that several scenarios reach is met in the first of them.
class Places {
  public:
    void add(Place place) {
        if (known_.insert(place.site).second) all_.push_back(std::move(place));
    }
    const std::vector<Place> &all() const { return all_; }
    std::set<std::string> functions() const {
        std::set<std::string> functions;
        for (const Place &one : all_) functions.insert(one.function);
        return functions;
    }

    static Places read(const fs::path &file) {
        Places places;
        std::ifstream in(file);
        for (Place one; in >> one.scenario >> one.process >> one.calls >> one.site;) {
            one.function = function_of(one.site);
            places.add(one);
        }
        return places;
    }
    void write(const fs::path &file) const {
        fs::create_directories(file.parent_path());
        std::ofstream out(file);
        for (const Place &one : all_) {
            out << one.scenario << " " << one.process << " " << one.calls << " " << one.site
                << "\n";
        }
    }

  private:
    std::vector<Place> all_;
    std::set<std::string> known_;
};

// First, a middle and the last of so many calls, as far as they are different ones.
std::vector<std::pair<std::string, size_t>> calls_of(size_t calls) {
    std::vector<std::pair<std::string, size_t>> chosen = {{"first", 1}};
    if (calls > 2) chosen.emplace_back("middle", (calls + 1) / 2);
    if (calls > 1) chosen.emplace_back("last", calls);
    return chosen;
}

// What differs from run to run, and says nothing.
std::string plain(const std::string &line) {
    static const std::regex temporary("/tmp/(QfMS|EMCTX|EMCTF)[A-Za-z0-9]+");
    static const std::regex descriptors("fd=[0-9]+");
    static const std::regex pids("pid\\([0-9]+\\)");
    static const std::regex devices("mount point for device [0-9]+");
    static const std::regex identifiers("\\b[0-9a-f]{16}\\b");
    // In the linker's own words.
    static const std::regex linker("(Unable to open shared library [^ ]+: ).+");
    std::string text = std::regex_replace(line, temporary, "/tmp/$1*");
    text = std::regex_replace(text, descriptors, "fd=*");
    text = std::regex_replace(text, identifiers, "*");
    text = std::regex_replace(text, devices, "mount point for device *");
    text = std::regex_replace(text, linker, "$1*");
    return std::regex_replace(text, pids, "pid(*)");
}

std::string one_line(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

// Where the fault's own error is told: so that a place ends alike with whatever error.
std::string without_error(std::string line, const Way &way) {
    // A program's own exit status is told in the same words.
    if (way.value <= 0 || way.fate == "lie" || line.find("exit_status=") != std::string::npos) {
        return line;
    }
    const std::string number = std::to_string(way.value);
    for (const std::string &told : {std::string(strerror(static_cast<int>(way.value))),
                                    "errno = " + number, "errno=" + number, "errno " + number}) {
        const size_t at = line.find(told);
        if (at != std::string::npos) line.replace(at, told.size(), "%m");
    }
    return line;
}

void remember(const Phase &phase, std::set<std::string> *lines) {
    for (const Call &call : phase.calls) {
        for (const std::string &line : call.log) lines->insert(plain(line));
    }
}

// Whether something of a copy came up that the next try finds in its way: the first of two objects,
// or a disk group that was not started, or that came up although its import lost its status.
bool half_presented(const Outcome &outcome) {
    bool presented = false;
    for (const Call &call : outcome.faulted.calls) {
        if (call.step != "volumes") continue;
        if (call.status == 0) {
            presented = true;
            continue;
        }
        return presented || call.errmsg.find(" startall ") != std::string::npos ||
               call.errmsg.find(" import ") != std::string::npos;
    }
    return false;
}

// A fault can change what the framework has to do next, and so the scenario's further processes:
// the table has to know.
bool is_told_by_table(const Outcome &outcome, const std::string &wrong) {
    if (wrong.find(" after it: ") != std::string::npos) return true;
    if (wrong.find(" again: ") != std::string::npos && half_presented(outcome)) return true;
    // A lock that could not be released stays until its next owner takes it over.
    static const std::regex counter_file_stays(
        "the world is another one:(\n\\+ __LOCKFILE_[0-9A-Za-z]+)+");
    return std::regex_match(wrong, counter_file_stays);
}

// What holds of every failure, whatever the table says.
std::vector<std::string> judge(const Outcome &outcome) {
    std::vector<std::string> wrong;
    std::remove_copy_if(
        outcome.wrong.begin(), outcome.wrong.end(), std::back_inserter(wrong),
        [&outcome](const std::string &one) { return is_told_by_table(outcome, one); });
    for (const Call &call : outcome.faulted.calls) {
        if (call.status == 0 || call.errmsg.empty()) continue;
        if (!call.logged(call.errmsg)) wrong.push_back(call.step + " did not log its message");
    }
    return wrong;
}

// What was recorded stands in the row's folder, so that a run that was broken off goes on.
fs::path recorded_file(const Options &options) {
    return options.state / "recorded";
}

// The tables of what was recorded. What was seen last of a point counts.
void write_tables(const fs::path &recorded, const fs::path &tables) {
    std::map<std::string, std::map<std::string, size_t>> places;
    std::map<std::string, std::vector<std::pair<CallPoint, OutcomeText>>> seen;
    std::ifstream in(recorded);
    for (std::string line; std::getline(in, line);) {
        const auto kept = nlohmann::json::parse(line);
        const CallPoint point = CallPoint::of(kept[0].get<std::vector<std::string>>());
        auto &points = seen[point.scenario];
        const auto [at, is_new] = places[point.scenario].try_emplace(point.name(), points.size());
        if (is_new) points.emplace_back();
        points[at->second] = {point, kept[1].get<OutcomeText>()};
    }
    for (const auto &[scenario, points] : seen) OutcomeTable(tables / scenario).write(points);
}

class Runner {
  public:
    Runner(const CallRow &row, Row *run, fs::path tables)
        : row_(row), run_(run), tables_(std::move(tables)) {}

    void take(const Point &point) {
        try {
            meet(point);
        } catch (const std::runtime_error &error) {
            // Of the lab, not of the method; the next point gets a new world.
            run_->failed(point.names.name(), error.what());
            bench_.reset();
        }
    }

    // From here on what is seen is kept for the tables.
    void record() {
        recorded_.open(recorded_file(run_->options()), std::ios::app);
        if (!recorded_) throw std::runtime_error("cannot write what is recorded");
    }

  private:
    void enter(const std::string &name) {
        if (bench_ != nullptr && scenario_->name == name) return;
        scenario_ = &scenario(name);
        bench_ = std::make_unique<Bench>(*scenario_, row_.kind);
        table_ = std::make_unique<OutcomeTable>(tables_ / name);
        ordinary_.clear();
        for (size_t i = 0; i < scenario_->processes.size(); ++i) {
            bench_->sites(i);
            remember(bench_->without_fault(i), &ordinary_);
        }
    }

    void meet(const Point &point) {
        enter(point.names.scenario);
        const auto [process, site] = find(point.names);
        if (site == nullptr) throw std::runtime_error("the place is not reached any more");
        Plan plan{row_.kind, *site, point.way.fate, point.way.value, point.way.word};
        for (const auto &[name, number] : calls_of(site->calls)) {
            if (name == point.names.call) plan.call = number;
        }
        plan.scope = point.names.scope == "once" ? "once" : row_.once_broken;
        const Outcome outcome = bench_->run(process, plan);
        compare(point, outcome);
        // Its world is gone; another one has to have seen the scenario once, as this one had.
        if (!outcome.wrong.empty()) bench_.reset();
    }

    std::pair<size_t, const Site *> find(const CallPoint &point) {
        for (size_t i = 0; i < scenario_->processes.size(); ++i) {
            if (scenario_->processes[i].name != point.process) continue;
            for (const Site &site : bench_->sites(i)) {
                if (site.name == point.site) return {i, &site};
            }
        }
        return {0, nullptr};
    }

    OutcomeText text_of(const Outcome &outcome, const Way &way) const {
        OutcomeText text = {outcome.line()};
        std::string last;
        for (const Call &call : outcome.faulted.calls) {
            for (const std::string &line : call.log) {
                const std::string shown = without_error(plain(line), way);
                if (ordinary_.contains(shown) || shown == last) continue;
                text.push_back(shown);
                last = shown;
            }
        }
        for (const std::string &wrong : outcome.wrong) {
            if (is_told_by_table(outcome, wrong)) text.push_back("then " + one_line(plain(wrong)));
        }
        return text;
    }

    void keep(const CallPoint &point, const OutcomeText &text) {
        recorded_ << nlohmann::json({point.words(), text}).dump() << std::endl;
    }

    void compare(const Point &met, const Outcome &outcome) {
        const CallPoint &point = met.names;
        const Way &way = met.way;
        const OutcomeText text = text_of(outcome, way);
        std::string seen;
        for (const std::string &line : text) seen += "\n      " + line;
        if (run_->verbose()) printf("%s%s\n", point.name().c_str(), seen.c_str());
        const std::vector<std::string> wrong = judge(outcome);
        std::string why;
        for (const std::string &one : wrong) why += one + "\n    ";
        if (wrong.empty() && recorded_.is_open()) keep(point, text);
        const OutcomeText *expected = table_->expected(point);
        if (expected == nullptr) {
            CallPoint leading = point;
            leading.fault = met.leader;
            expected = table_->expected(leading);
        }
        if (!recorded_.is_open() && expected == nullptr)
            why += "the table does not know this point";
        if (!recorded_.is_open() && expected != nullptr && *expected != text) {
            why += "expected";
            for (const std::string &line : *expected) why += "\n      " + line;
        }
        if (why.empty())
            run_->held(point.name());
        else
            run_->failed(point.name(), why + "\n    seen" + seen);
    }

    const CallRow &row_;
    Row *run_;
    fs::path tables_;
    std::ofstream recorded_;
    const Scenario *scenario_ = nullptr;
    std::unique_ptr<Bench> bench_;
    std::unique_ptr<OutcomeTable> table_;
    std::set<std::string> ordinary_;  // what is logged without a fault
};

Places look_for_places(const CallRow &row) {
    Places places;
    for (const Scenario &one : call_scenarios()) {
        Bench bench(one, row.kind);
        for (size_t i = 0; i < one.processes.size(); ++i) {
            for (const Site &site : bench.sites(i)) {
                places.add({one.name, one.processes[i].name, site.name, site.function, site.calls});
            }
        }
    }
    return places;
}

// One place: in every way at its first call, once; in the first of them, which stands for all, at
// its other calls and for good, too.
void add_points(const CallRow &row, const Place &place, std::vector<Point> *points) {
    const std::vector<Way> ways = row.ways(place.function);
    const std::string leader = ways.empty() ? "" : ways.front().name;
    bool stands_for_all = true;
    for (const Way &way : ways) {
        for (const auto &[call, number] : calls_of(place.calls)) {
            const CallPoint names = {place.scenario, place.process, place.site,
                                     way.name,       call,          "once"};
            if (call == "first" || stands_for_all)
                points->push_back({names, way, leader, stands_for_all});
            if (!way.lasts || !stands_for_all) continue;
            points->push_back({names, way, leader, stands_for_all});
            points->back().names.scope = "on";
        }
        stands_for_all = false;
    }
}

std::vector<Point> points_of(const CallRow &row, const Places &places) {
    std::vector<Point> points;
    for (const Place &place : places.all()) {
        const bool left_out =
            std::any_of(row.left_out.begin(), row.left_out.end(),
                        [&place](const std::string &end) { return place.site.ends_with(end); });
        if (!left_out) add_points(row, place, &points);
    }
    return points;
}

// What this program takes beside the options of every row.
struct Recording {
    bool wanted = false;
    std::string scenario;  // this one alone; empty: all
};

int run_row(const CallRow &row, const Options &options, const Recording &recording) {
    const fs::path tables = fs::path(TF_SOURCE_DIR) / "proof/expected" / row.name;
    Row run(row.name, options, shipped_libraries());
    const Places places = options.full ? look_for_places(row) : Places::read(tables / "sites");
    std::map<std::string, Point> points;
    std::vector<std::string> names;
    for (const Point &point : points_of(row, places)) {
        const std::string &scenario = point.names.scenario;
        if (!recording.scenario.empty() && scenario != recording.scenario) continue;
        if (recording.wanted && !point.stands_for_all && options.only.empty()) continue;
        names.push_back(point.names.name());
        points[names.back()] = point;
    }
    Runner runner(row, &run, tables);
    if (recording.wanted) runner.record();
    // Those of one scenario stand together in the list, so each world is made once.
    for (const std::string &name : run.choose(names, row.quick)) runner.take(points.at(name));
    if (row.gaps) {
        for (const auto &[function, why] : row.gaps(places.functions()))
            run.failed("imports/" + function, why);
    }
    if (recording.wanted && recording.scenario.empty()) {
        places.write(tables / "sites");
        write_tables(recorded_file(options), tables);
    }
    return run.finish(std::to_string(places.all().size()) + " places");
}

// Takes "--record" or "--record=SCENARIO" out of the arguments.
Recording take_recording(int *argc, char **argv) {
    constexpr std::string_view option = "--record";
    Recording recording;
    int kept = 0;
    for (int i = 0; i < *argc; ++i) {
        const std::string_view word = argv[i];
        if (word != option && !word.starts_with("--record=")) {
            argv[kept++] = argv[i];
            continue;
        }
        recording.wanted = true;
        if (word != option) recording.scenario = word.substr(option.size() + 1);
    }
    *argc = kept;
    return recording;
}

}  // namespace

int run_call_row(int argc, char **argv, const CallRow &row) {
    const Recording recording = take_recording(&argc, argv);
    const Options options = options_of(argc, argv, row.about);
    if (geteuid() != 0) return Row::cannot_run("worlds need root");
    try {
        return run_row(row, options, recording);
    } catch (const std::runtime_error &error) {
        fprintf(stderr, "%s: %s\n", row.name.c_str(), error.what());
        printf(
            "{\"held\": 0, \"points\": 0, \"of\": 0, \"failed\": 1, \"note\": \"broken off\"}\n");
        return row_missed;
    }
}

}  // namespace proof
