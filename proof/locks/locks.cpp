// The row "locks": the routines of the counter files, in real processes with real record locks in a
// private root. A point is one update of one file, or a race of fifty processes.
#include <cinttypes>
#include <cstdio>
#include <exception>

#include "proof/kit/row.h"
#include "proof/locks/files.h"
#include "proof/locks/machine.h"
#include "proof/locks/race.h"
#include "tests/support/private_root.h"

namespace {

constexpr int rounds = 1000;
constexpr int rounds_in_a_sample = 100;

struct Sums {
    long changes = 0, refused = 0, killed = 0;
};

std::string try_race(const std::string &point, const proof::Options &options, Sums *sums) {
    const bool all = options.full || !options.only.empty();
    const locks::RaceResult result =
        locks::try_race_point(point, all ? rounds : rounds_in_a_sample, options.seed);
    printf("%s: %ld changes, %ld refused, %ld processes killed\n", point.c_str(), result.changes,
           result.refused, result.killed);
    sums->changes += result.changes;
    sums->refused += result.refused;
    sums->killed += result.killed;
    if (result.wrong.empty()) return "";
    return result.wrong + " (seed " + std::to_string(options.seed) + ")";
}

int run(int argc, char **argv) {
    const proof::Options options = proof::options_of(
        argc, argv, "Counter files in every state, and fifty processes that use them at once");
    proof::Row row("locks", options, proof::shipped_libraries());
    test::enter_private_root();
    locks::make_machine();
    std::vector<std::string> points = locks::race_points();
    for (const std::string &point : locks::reuse_points()) points.push_back(point);
    for (const std::string &point : locks::file_points()) points.push_back(point);
    Sums sums;
    // All of them take a few seconds; a sample only makes the races shorter.
    for (const std::string &point : row.choose(points, points.size())) {
        std::string wrong;
        if (point.starts_with("race/")) {
            wrong = try_race(point, options, &sums);
        } else {
            wrong = point.starts_with("reuse/") ? locks::try_reuse_point(point)
                                                : locks::try_file_point(point);
        }
        if (wrong.empty()) {
            row.held(point);
        } else {
            row.failed(point, wrong);
        }
    }
    return row.finish(std::to_string(sums.changes) + " changes, " + std::to_string(sums.refused) +
                      " refused sets, " + std::to_string(sums.killed) + " owners killed");
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "locks: %s\n", error.what());
        return proof::row_missed;
    }
}
