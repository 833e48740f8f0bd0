// Two or more ways of doing the same work, compared in one run. Nothing here is ever a bare time:
// a result is the ratio of the subject to what stands beside it.
//
// A benchmark program adds its comparisons and runs them:
//
//     bench::Comparisons all("config string", argc, argv);
//     all.ahead("60 pairs", {"the parser", parse}, {{"GOption", goption}}, 1.0);
//     return all.run();
//
// With --count it counts instructions under callgrind, which do not depend on the machine's mood;
// else it takes CPU and wall time with Google Benchmark, the variants interleaved at random.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace bench {

// Does the work once. Whatever it allocates it frees.
using Work = std::function<void()>;

struct Variant {
    std::string name;
    Work work;
};

struct Comparison {
    std::string what;  // the work and its size: "out, 2046 pairs"
    Variant subject;
    std::vector<Variant> others;   // at least one
    bool ahead = false;            // ratio: best of the others by the subject, else the subject by
                                   // the first of the others
    std::optional<double> target;  // what the ratio has to reach (ahead) or not to pass
};

class Comparisons {
  public:
    // Options: --count, --only TEXT (comparisons whose name holds it), --repetitions N. A wrong one
    // ends the process with 2.
    Comparisons(std::string row, int argc, char **argv);

    // The subject is as many times faster than the best of the others.
    void ahead(std::string what, Variant subject, std::vector<Variant> others,
               std::optional<double> target);
    // The subject costs as many times what the first of the others costs; further ones are printed
    // beside it.
    void within(std::string what, Variant subject, std::vector<Variant> others,
                std::optional<double> target);

    // Whether what is measured in another way under this name is asked for, in this process.
    bool measures(const std::string &what) const {
        return !below_callgrind_ && what.find(only_) != std::string::npos;
    }

    // Measures, and prints a line of JSON for each comparison:
    //   {"row", "what", "measure", "subject", "relation": "ahead of" or "to", "against", "ratio",
    //   "bound": ">=" or "<=" or "",
    //    "target", "held", "beside": {NAME: ratio, ...}}
    // Status: 0 when every target was met, 1 when one was missed.
    int run();

  private:
    int run_timed();
    int run_counted();
    int run_below_callgrind();

    std::string row_, program_, only_;
    bool count_ = false, below_callgrind_ = false;
    int repetitions_ = 9;
    std::vector<Comparison> all_;
};

// A result that was measured in another way, printed like those above.
struct Result {
    std::string row, what, measure, subject, against;
    double ratio = 0;
    bool at_least = false;  // the bound, if there is a target
    std::optional<double> target;
    std::vector<std::pair<std::string, double>> beside;
    std::string note;
};
// Prints it; whether its target was met.
bool print(const Result &result);

}  // namespace bench
