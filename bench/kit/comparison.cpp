#include "bench/kit/comparison.h"

#include <benchmark/benchmark.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "bench/kit/callgrind.h"
#include "bench/kit/statistics.h"

namespace bench {
namespace {

// Costs of one variant, by measure ("cpu time", "instructions", ...).
using Costs = std::map<std::string, double>;

// Keeps every repetition and prints nothing.
class Collector : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.run_type != Run::RT_Iteration) continue;
            cpu_[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
            wall_[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
        }
    }
    Costs costs_of(const std::string &name) {
        return {{"CPU time", median(cpu_[name])}, {"wall time", median(wall_[name])}};
    }

  private:
    std::map<std::string, std::vector<double>> cpu_, wall_;
};

std::string name_of(size_t comparison, size_t variant) {
    return "c" + std::to_string(comparison) + "v" + std::to_string(variant);
}

// The results of one comparison, a line a measure.
bool print_all(const std::string &row, const Comparison &comparison,
               const std::vector<Costs> &costs) {
    bool held = true;
    for (const auto &[measure, own] : costs[0]) {
        size_t against = 1;
        for (size_t i = 2; comparison.ahead && i < costs.size(); ++i) {
            if (costs[i].at(measure) < costs[against].at(measure)) against = i;
        }
        const auto ratio_to = [&, own = own](size_t i) {
            return comparison.ahead ? costs[i].at(measure) / own : own / costs[i].at(measure);
        };
        Result result;
        result.row = row;
        result.what = comparison.what;
        result.measure = measure;
        result.subject = comparison.subject.name;
        result.against = comparison.others[against - 1].name;
        result.ratio = ratio_to(against);
        result.at_least = comparison.ahead;
        // Wall time is shown and not judged: the machine's other work is in it.
        if (measure != "wall time") result.target = comparison.target;
        for (size_t i = 1; i < costs.size(); ++i) {
            if (i != against)
                result.beside.emplace_back(comparison.others[i - 1].name, ratio_to(i));
        }
        held = print(result) && held;
    }
    return held;
}

}  // namespace

bool print(const Result &result) {
    const bool held = !result.target || (result.at_least ? result.ratio >= *result.target
                                                         : result.ratio <= *result.target);
    nlohmann::ordered_json line = {{"row", result.row},
                                   {"what", result.what},
                                   {"measure", result.measure},
                                   {"subject", result.subject},
                                   {"relation", result.at_least ? "ahead of" : "to"},
                                   {"against", result.against},
                                   {"ratio", result.ratio}};
    line["bound"] = !result.target ? "" : result.at_least ? ">=" : "<=";
    line["target"] = result.target ? nlohmann::ordered_json(*result.target) : nullptr;
    line["held"] = held;
    for (const auto &[name, ratio] : result.beside) line["beside"][name] = ratio;
    if (!result.note.empty()) line["note"] = result.note;
    printf("%s\n", line.dump().c_str());
    fflush(stdout);
    return held;
}

Comparisons::Comparisons(std::string row, int argc, char **argv)
    : row_(std::move(row)), program_(std::filesystem::read_symlink("/proc/self/exe")) {
    CLI::App app("compares: " + row_);
    app.add_flag("--count", count_, "count instructions under callgrind instead of taking time");
    app.add_flag("--below-callgrind", below_callgrind_, "for --count itself")->group("");
    app.add_option("--only", only_, "comparisons whose name holds this text");
    app.add_option("--repetitions", repetitions_, "of each measurement")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        exit(app.exit(error) == 0 ? 0 : 2);
    }
}

void Comparisons::ahead(std::string what, Variant subject, std::vector<Variant> others,
                        std::optional<double> target) {
    if (what.find(only_) == std::string::npos) return;
    all_.push_back({std::move(what), std::move(subject), std::move(others), true, target});
}

void Comparisons::within(std::string what, Variant subject, std::vector<Variant> others,
                         std::optional<double> target) {
    if (what.find(only_) == std::string::npos) return;
    all_.push_back({std::move(what), std::move(subject), std::move(others), false, target});
}

int Comparisons::run() {
    if (below_callgrind_) return run_below_callgrind();
    return count_ ? run_counted() : run_timed();
}

int Comparisons::run_timed() {
    for (size_t i = 0; i < all_.size(); ++i) {
        for (size_t k = 0; k <= all_[i].others.size(); ++k) {
            const Work &work = k == 0 ? all_[i].subject.work : all_[i].others[k - 1].work;
            benchmark::RegisterBenchmark(name_of(i, k).c_str(), [work](benchmark::State &state) {
                for (auto _ : state) work();
            })->Repetitions(repetitions_);
        }
    }
    // The variants take turns at random, so that a busy moment of the machine meets all of them.
    std::string arguments[] = {program_, "--benchmark_enable_random_interleaving=true",
                               "--benchmark_min_time=0.02"};
    char *argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
    int argc = 3;
    benchmark::Initialize(&argc, argv);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    bool held = true;
    for (size_t i = 0; i < all_.size(); ++i) {
        std::vector<Costs> costs;
        for (size_t k = 0; k <= all_[i].others.size(); ++k) {
            costs.push_back(collector.costs_of(name_of(i, k)));
        }
        held = print_all(row_, all_[i], costs) && held;
    }
    return held ? 0 : 1;
}

// Everything once, so that what happens once a process has happened; then each variant once more
// between two marks, whose instructions callgrind writes into a file of its own.
int Comparisons::run_below_callgrind() {
    for (size_t i = 0; i < all_.size(); ++i) {
        for (size_t k = 0; k <= all_[i].others.size(); ++k) {
            const Work &work = k == 0 ? all_[i].subject.work : all_[i].others[k - 1].work;
            work();
            count_from_here();
            work();
            count_to_here(name_of(i, k));
        }
    }
    return 0;
}

int Comparisons::run_counted() {
    const auto instructions =
        count_instructions(program_, "--below-callgrind --only '" + only_ + "'");
    bool held = true;
    for (size_t i = 0; i < all_.size(); ++i) {
        std::vector<Costs> costs;
        for (size_t k = 0; k <= all_[i].others.size(); ++k) {
            const auto counted = instructions.find(name_of(i, k));
            if (counted == instructions.end())
                throw std::runtime_error("callgrind counted nothing");
            costs.push_back({{"instructions", counted->second}});
        }
        held = print_all(row_, all_[i], costs) && held;
    }
    return held ? 0 : 1;
}

}  // namespace bench
