#include "bench/cycle/calls_per_pair.h"

#include <algorithm>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "bench/cycle/phases.h"
#include "bench/kit/comparison.h"

namespace bench {
namespace {

// What a step calls for one pair.
struct Step {
    const char *function;
    const char *what;
    int times;
};

// The list of the volume's devices names one a line.
constexpr Step list_devices[] = {
    {"fgets", "the device's line of the clone tool's list", 1},
};

// The counter file bears the serial number that the device-information tool tells. A command writes
// into two capture files, and neither may be anybody else's when the shell opens it.
constexpr Step name_counter_file[] = {
    {"lstat", "what stands under the names of the two capture files", 2},
    {"geteuid", "whether the capture files are this user's", 2},
    {"system", "the serial number from the device-information tool", 1},
    {"open", "the tool's answer", 1},
    {"fdopen", "the tool's answer as a stream", 1},
    {"fgets", "the answer's line and its end", 2},
    {"fclose", "the tool's answer", 1},
};

// One update under the host-wide lock. The owner is read twice: when the file is opened, since it
// may have to be taken over, and when it is changed, from its start on. Its three fields are read
// and written one by one; the signals that a failing write would raise are held back for all three
// at once.
constexpr Step update_counter_file[] = {
    {"open", "the host-wide lock file", 1},
    {"fcntl_lock", "the host-wide lock", 1},
    {"open", "the counter file", 1},
    {"read", "the counter file's owner", 1},
    {"getpid", "whether that is this process", 1},
    {"lseek", "to the start before reading", 1},
    {"read", "owner and count and flag", 3},
    {"getpid", "the new owner", 1},
    {"lseek", "to the start before writing", 1},
    {"sigmask", "the writes' signals held back and let go", 2},
    {"sigpending", "which of them were there before", 1},
    {"write", "owner and count and flag", 3},
    {"close", "the counter file and the lock file", 2},
};

// The array is asked about the primary as it is now. Every BCV of the primary (there is one) is
// looked at twice: whether any bears the label has to be known before one of them is chosen. The
// third look is at the one that was chosen.
constexpr Step discover_pair[] = {
    {"SymPdevSync", "refresh the primary", 1},
    {"SymPdevShow", "the primary and its pairs", 1},
    {"SymDevShow", "the BCV for the survey of labels", 1},
    {"SymDevShow", "the BCV for the choice", 1},
    {"SymDevShow", "the BCV for its host path", 1},
};

// A pair's state is read from the primary, behind a refresh of its BCV.
constexpr Step wait_in_discovery[] = {
    {"SymDevSync", "refresh the BCV in discovery", 1},
    {"SymPdevShow", "the state in discovery", 1},
};
constexpr Step wait_for_all_pairs[] = {
    {"SymDevSync", "refresh the BCV when all are discovered", 1},
    {"SymPdevShow", "the state when all are discovered", 1},
};
constexpr Step wait_for_establish[] = {
    {"SymDevSync", "refresh the BCV behind the establish", 1},
    {"SymPdevShow", "the state behind the establish", 1},
};
constexpr Step prepare_split[] = {
    {"SymDevSync", "refresh the BCV before the split", 1},
    {"SymPdevShow", "the state before the split", 1},
};
constexpr Step wait_for_split[] = {
    {"SymDevSync", "refresh the BCV behind the split", 1},
    {"SymPdevShow", "the state behind the split", 1},
};
constexpr Step find_mirror[] = {
    {"SymDevShow", "the BCV for its host path", 1},
};
constexpr Step wait_before_resync[] = {
    {"SymDevSync", "refresh the BCV to see nothing in progress", 1},
    {"SymPdevShow", "the state to see nothing in progress", 1},
};
constexpr Step prepare_resync[] = {
    {"SymDevSync", "refresh the BCV before the resync", 1},
    {"SymPdevShow", "the state before the resync", 1},
};

// The cycle, in its order. What is not here (a checkpoint, a copy's volumes, a thaw, the control
// calls on all pairs) costs the same for any number of pairs.
struct Part {
    const char *phase;
    std::span<const Step> steps;
};
constexpr Part cycle[] = {
    {phase::freeze, list_devices},
    {phase::freeze, name_counter_file},
    {phase::freeze, update_counter_file},
    {phase::freeze, discover_pair},
    {phase::freeze, wait_in_discovery},
    {phase::freeze, wait_for_all_pairs},
    {phase::control, wait_for_establish},
    {phase::freeze_commit, prepare_split},
    {phase::freeze_commit, wait_for_split},
    {phase::rebuild, find_mirror},
    {phase::rebuild, name_counter_file},
    {phase::rebuild, update_counter_file},
    {phase::thaw_commit, wait_before_resync},
    {phase::thaw_commit, prepare_resync},
    {phase::thaw_commit, update_counter_file},
};

// What the steps ask for of one function.
struct Asked {
    int times = 0;
    std::map<std::string, int> by_phase;
    std::map<std::string, std::string> steps;  // of a phase, for a reader
};

void add(Asked &asked, const char *phase, const Step &step) {
    std::string &steps = asked.steps[phase];
    steps += (steps.empty() ? "" : ", ") + std::string(step.what);
    if (step.times > 1) steps += " (" + std::to_string(step.times) + ")";
    asked.by_phase[phase] += step.times;
    asked.times += step.times;
}

// "freeze 3: STEP, STEP (2); rebuild 1: STEP"
std::string all_steps(const Asked &asked) {
    std::string text;
    for (const char *phase : phase::all) {
        const auto steps = asked.steps.find(phase);
        if (steps == asked.steps.end()) continue;
        text += (text.empty() ? "" : "; ") + std::string(phase) + " " +
                std::to_string(asked.by_phase.at(phase)) + ": " + steps->second;
    }
    return text;
}

// What one pair more makes of calls.
class Increase {
  public:
    Increase(const Calls &few, int few_pairs, const Calls &many, int many_pairs) {
        for (const auto &[call, count] : many) each_[call] += static_cast<double>(count);
        for (const auto &[call, count] : few) each_[call] -= static_cast<double>(count);
        for (auto &[call, count] : each_) count /= many_pairs - few_pairs;
    }
    double of(const std::string &function) const {
        double sum = 0;
        for (const auto &[call, each] : each_) sum += call.function == function ? each : 0;
        return sum;
    }
    double of(const std::string &function, const std::string &phase) const {
        const auto found = each_.find({phase, function});
        return found == each_.end() ? 0 : found->second;
    }
    std::set<std::string> functions() const {
        std::set<std::string> all;
        for (const auto &[call, each] : each_) all.insert(call.function);
        return all;
    }

  private:
    std::map<PhaseCall, double> each_;
};

// A call too few is a miss as well: then a check was left out, or the steps are not what is done.
bool print_count(const std::string &row, const std::string &what, double each, int asked,
                 const std::string &note) {
    Result result;
    result.row = row;
    result.what = what;
    result.measure = "calls";
    result.subject = "the method";
    result.against = "the number of pairs";
    result.ratio = each;
    result.target = asked;
    result.at_least = each < asked;
    result.note = note;
    return print(result);
}

// The number is the same in every phase unless something is wrong.
bool print_function(const std::string &row, const std::string &function, const Asked &asked,
                    const Increase &increase) {
    bool held = true;
    const double each = increase.of(function);
    if (asked.times != 0 || each != 0) {
        held = print_count(row, "calls of " + function, each, asked.times, all_steps(asked));
    }
    for (const char *phase : phase::all) {
        const auto found = asked.by_phase.find(phase);
        const int wanted = found == asked.by_phase.end() ? 0 : found->second;
        const double made = increase.of(function, phase);
        if (made == wanted) continue;
        held = print_count(row, "calls of " + function + ", " + phase, made, wanted, "") && held;
    }
    return held;
}

}  // namespace

bool print_calls_per_pair(const std::string &row, const Calls &few, int few_pairs,
                          const Calls &many, int many_pairs) {
    std::vector<std::string> order;
    std::map<std::string, Asked> asked;
    for (const Part &part : cycle) {
        for (const Step &step : part.steps) {
            if (!asked.contains(step.function)) order.push_back(step.function);
            add(asked[step.function], part.phase, step);
        }
    }
    const Increase increase(few, few_pairs, many, many_pairs);
    for (const std::string &function : increase.functions()) {
        if (!asked.contains(function)) order.push_back(function);
    }
    std::stable_partition(order.begin(), order.end(), [](const std::string &function) {
        return function.starts_with("Sym");  // the array's first
    });
    bool held = true;
    for (const std::string &function : order) {
        held = print_function(row, function, asked[function], increase) && held;
    }
    return held;
}

}  // namespace bench
