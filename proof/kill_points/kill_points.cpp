// The row "kill points": kill -9 before and after every system call that changes something, in each
// process of each way of using the method, then recovery by new processes.
//
// A point is SCENARIO/PROCESS/CALL/before|after/N: the N-th such call of that process, the first, a
// middle and the last one of each name.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

#include "proof/kill_points/fimctl_run.h"
#include "proof/kill_points/ground.h"
#include "proof/kit/row.h"

namespace proof {
namespace {

namespace fs = std::filesystem;

constexpr size_t quick_points = 8;

struct Point {
    std::string name, scenario;
    size_t process = 0;  // of the scenario
    Kill kill;
};

std::set<size_t> chosen_calls(size_t calls) {
    return {1, (calls + 1) / 2, calls};
}

void add_points(std::vector<Point> &points, const std::string &scenario, const std::string &process,
                size_t number, const std::vector<Place> &places, bool all) {
    for (const Place &place : places) {
        for (const size_t call : chosen_calls(place.calls)) {
            for (const bool after : {false, true}) {
                Point point;
                point.scenario = scenario;
                point.process = number;
                point.kill = {place.name, call, after, all};
                point.name = scenario + "/" + process + "/" + place.name +
                             (after ? "/after/" : "/before/") + std::to_string(call);
                points.push_back(std::move(point));
            }
        }
    }
}

// The points by scenario, with what they need; kept between runs, since to find them takes a world
// for each scenario.
class Points {
  public:
    explicit Points(fs::path file) : file_(std::move(file)) {}

    std::vector<Point> all() {
        std::vector<Point> points;
        if (!is_up_to_date() || !read(points)) {
            points = found();
            write(points);
        }
        return points;
    }

  private:
    static std::vector<Point> found() {
        std::vector<Point> points;
        for (const Scenario &scenario : scenarios()) {
            const auto places = Ground(scenario).places();
            for (size_t i = 0; i < places.size(); ++i) {
                add_points(points, scenario.name, scenario.processes[i].name, i, places[i], false);
            }
        }
        const auto places = FimctlRun().places();
        add_points(points, "fimctl", "one", 0, places, false);
        add_points(points, "fimctl", "all", 1, places, true);
        return points;
    }

    // Nothing that decides about the points has been built since.
    bool is_up_to_date() const {
        std::error_code error;
        const auto written = fs::last_write_time(file_, error);
        if (error) return false;
        auto judged = shipped_libraries();
        for (const char *program : {"tfkill", "tfphase", "fimctl", "proof_kill_points", "tfarrayd"})
            judged.push_back(fs::path(TF_BINARY_DIR) / "bin" / program);
        return std::all_of(judged.begin(), judged.end(),
                           [&](const fs::path &one) { return fs::last_write_time(one) < written; });
    }

    bool read(std::vector<Point> &points) const {
        std::ifstream in(file_);
        Point point;
        for (std::string number, call, after, all;
             std::getline(in, point.scenario, '\t') && std::getline(in, number, '\t') &&
             std::getline(in, point.kill.name, '\t') && std::getline(in, call, '\t') &&
             std::getline(in, after, '\t') && std::getline(in, all, '\t') &&
             std::getline(in, point.name);) {
            point.process = std::stoul(number);
            point.kill.call = std::stoul(call);
            point.kill.after = after == "1";
            point.kill.all = all == "1";
            points.push_back(point);
        }
        return !points.empty();
    }

    void write(const std::vector<Point> &points) const {
        std::ofstream out(file_.string() + ".new");
        for (const Point &point : points) {
            out << point.scenario << '\t' << point.process << '\t' << point.kill.name << '\t'
                << point.kill.call << '\t' << point.kill.after << '\t' << point.kill.all << '\t'
                << point.name << '\n';
        }
        out.close();
        fs::rename(file_.string() + ".new", file_);
    }

    fs::path file_;
};

class Runner {
  public:
    explicit Runner(bool verbose) : verbose_(verbose) {}

    Wrong run(const Point &point) {
        if (point.scenario == "fimctl") {
            if (fimctl_ == nullptr) fimctl_ = std::make_unique<FimctlRun>();
            return fimctl_->kill(point.kill, verbose_);
        }
        // The points of one scenario follow each other, so one world at a time is enough.
        if (ground_ == nullptr || ground_of_ != point.scenario) {
            ground_ = std::make_unique<Ground>(scenario(point.scenario));
            ground_of_ = point.scenario;
        }
        return ground_->kill(point.process, point.kill, verbose_);
    }

  private:
    bool verbose_;
    std::string ground_of_;
    std::unique_ptr<Ground> ground_;
    std::unique_ptr<FimctlRun> fimctl_;
};

std::string joined(const Wrong &wrong) {
    std::string text;
    for (const std::string &line : wrong) text += (text.empty() ? "" : "\n    ") + line;
    return text;
}

int run_row(const Options &options) {
    auto judged = shipped_libraries();
    judged.push_back(fs::path(TF_BINARY_DIR) / "bin/fimctl");
    Row row("kill_points", options, judged);
    const auto points = Points(options.state / "points").all();
    std::map<std::string, const Point *> by_name;
    std::vector<std::string> names;
    for (const Point &point : points) {
        names.push_back(point.name);
        by_name[point.name] = &point;
    }
    Runner runner(row.verbose());
    for (const std::string &name : row.choose(names, quick_points)) {
        const Wrong wrong = runner.run(*by_name.at(name));
        if (wrong.empty())
            row.held(name);
        else
            row.failed(name, joined(wrong));
    }
    return row.finish("killed before and after what changes something, then recovered");
}

}  // namespace
}  // namespace proof

int main(int argc, char **argv) {
    const auto options = proof::options_of(
        argc, argv, "kill -9 before and after every system call that changes something");
    if (geteuid() != 0) return proof::Row::cannot_run("worlds need root");
    try {
        return proof::run_row(options);
    } catch (const std::exception &error) {
        fprintf(stderr, "kill_points: %s\n", error.what());
        return proof::row_missed;
    }
}
