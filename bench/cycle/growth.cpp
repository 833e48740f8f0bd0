#include "bench/cycle/growth.h"

#include <set>
#include <stdexcept>

#include "bench/cycle/phases.h"
#include "bench/kit/comparison.h"

namespace bench {
namespace {

// Of the cost per pair at the most pairs to that at the fewest, fixed costs included.
constexpr double most_growth = 1.10;
// Of the cost of one pair more, among many to among few. Linear is 0.98 to 1.02; a walk from the
// head of the list to its end for each device, of four instructions a step, makes 1.15 of rebuild.
constexpr double most_growth_of_a_pair = 1.05;
// The table of lines and the text grow by a fixed number of bytes at a time. Between the first
// growth and the size from which blocks are moved without a copy, each growth copies them.
constexpr double most_growth_of_a_pair_in_a_text = 1.15;
// Of what depends on no pair.
constexpr double most_growth_of_nothing = 1.05;
// The instructions of the floor stand for its calls alone: the array's answers, most of all. What
// the method does between them is as much again, and a row of the times shows how little that is.
constexpr double most_of_floor = 2.0;

// These look at the object, and at none of its devices.
const std::set<std::string> without_pairs = {phase::volumes, phase::thaw};

// Instructions of a cycle.
struct Cost {
    double few = 0, more = 0, most = 0;
    Cost operator+(const Cost &other) const {
        return {few + other.few, more + other.more, most + other.most};
    }
    Cost operator-(const Cost &other) const {
        return {few - other.few, more - other.more, most - other.most};
    }
};

class Growth {
  public:
    Growth(std::string row, const std::map<std::string, double> &instructions, const Sizes &sizes)
        : row_(std::move(row)), instructions_(instructions), sizes_(sizes) {}

    Cost cost_of(const std::string &phase) const {
        return {counted(phase, sizes_.few), counted(phase, sizes_.more),
                counted(phase, sizes_.most)};
    }

    // Of the whole, by the number of pairs.
    double per_pair(const Cost &cost) const {
        return cost.most / sizes_.most / (cost.few / sizes_.few);
    }
    Result whole(const std::string &what, const Cost &cost) const {
        return result(what + ", " + pairs(sizes_.most), "instructions per pair", pairs(sizes_.few),
                      per_pair(cost), most_growth);
    }

    // Of the pairs that come to the fewest, to more, and to the most of them.
    Result further(const std::string &phase, const Cost &cost) const {
        const double among_many = (cost.most - cost.more) / (sizes_.most - sizes_.more);
        const double among_few = (cost.more - cost.few) / (sizes_.more - sizes_.few);
        const bool copies = phase == phase::checkpoint;
        return result(phase + ", " + between(sizes_.more, sizes_.most),
                      "instructions for a further pair", between(sizes_.few, sizes_.more),
                      among_many / among_few,
                      copies ? most_growth_of_a_pair_in_a_text : most_growth_of_a_pair);
    }
    Result fixed(const std::string &phase, const Cost &cost) const {
        return result(phase + ", " + pairs(sizes_.most), "instructions", pairs(sizes_.few),
                      cost.most / cost.few, most_growth_of_nothing);
    }
    Result to_floor(const Cost &cycle, const Cost &floor) const {
        Result one = result("the whole cycle, " + pairs(sizes_.most), "instructions", "",
                            cycle.most / floor.most, most_of_floor);
        one.against = whole_floor;
        return one;
    }

  private:
    Result result(const std::string &what, const std::string &measure, const std::string &size,
                  double ratio, double target) const {
        Result one;
        one.row = row_;
        one.what = what;
        one.measure = measure;
        one.subject = "the method";
        one.against = "itself at " + size;
        one.ratio = ratio;
        one.target = target;
        return one;
    }
    static std::string pairs(int number) { return std::to_string(number) + " pairs"; }
    static std::string between(int low, int high) {
        return std::to_string(low) + " to " + pairs(high);
    }
    double counted(const std::string &phase, int number) const {
        const auto found = instructions_.find(mark_of(phase, number));
        if (found == instructions_.end() || found->second == 0) {
            throw std::runtime_error("callgrind counted nothing of " + phase);
        }
        return found->second;
    }

    std::string row_;
    const std::map<std::string, double> &instructions_;
    Sizes sizes_;
};

}  // namespace

std::string mark_of(const std::string &phase, int pairs) {
    return phase + ", " + std::to_string(pairs) + " pairs";
}

bool print_growth(const std::string &row, const std::map<std::string, double> &instructions,
                  const Sizes &sizes) {
    const Growth growth(row, instructions, sizes);
    bool held = true;
    Cost cycle;
    for (const char *phase : phase::all) {
        const Cost cost = growth.cost_of(phase);
        held = print(without_pairs.contains(phase) ? growth.fixed(phase, cost)
                                                   : growth.further(phase, cost)) &&
               held;
        cycle = cycle + cost;
    }
    const Cost floor = growth.cost_of(whole_floor);
    Result whole = growth.whole("the whole cycle", cycle);
    whole.beside = {{whole_floor, growth.per_pair(floor)}};
    held = print(whole) && held;
    held = print(growth.whole("the cycle beyond its floor", cycle - floor)) && held;
    return print(growth.to_floor(cycle, floor)) && held;
}

}  // namespace bench
