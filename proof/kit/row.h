// What every row of ./dev proof has in common: its options, the choice of its points, the ledger by
// which a long run goes on where it was broken off, and its last line for the scoreboard.
//
// A row is a program: COMMAND --quick|--full --seed N --state DIR [--point NAME...]. Its standard
// output is its log. The last line of it is
//   {"held": points that held, "points": points that were run, "of": N, "failed": ..., "note": ...}
// and its status is 0 when the target is met, 1 when it is missed, 77 when it cannot run here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace proof {

constexpr int row_held = 0, row_missed = 1, row_cannot_run = 77;

struct Options {
    bool full = false;              // every point, else a sample
    uint64_t seed = 1;              // which sample
    std::filesystem::path state;    // the row's own folder; made when it is missing
    std::vector<std::string> only;  // these points and no others, verbosely
};

// Reads the arguments of a row; a wrong one ends the process with 2 and says why.
Options options_of(int argc, char **argv, const std::string &about);

class Row {
  public:
    // The ledger of earlier full runs counts as long as none of the files of `judged` has changed:
    // what was proved of another library is proved of nothing.
    Row(std::string name, Options options, const std::vector<std::filesystem::path> &judged);
    Row(const Row &) = delete;
    Row &operator=(const Row &) = delete;
    ~Row();

    // The points that this run takes, in their order: those that were asked for by name; in a full
    // run all that have not held before; else `quick` of them, drawn by the seed. Every point has
    // a name of its own, without a newline.
    std::vector<std::string> choose(const std::vector<std::string> &points, size_t quick);

    // What became of a point. `why` says what was expected and what was seen; the command that
    // repeats the point is added here.
    void held(const std::string &point);
    void failed(const std::string &point, const std::string &why);

    // Whether single points were asked for, so that more should be said of each.
    bool verbose() const { return !options_.only.empty(); }
    const Options &options() const { return options_; }

    // The row's last line and its status: missed when a point failed, or when none was run.
    int finish(const std::string &note = "");
    // The same for a row that cannot run here.
    static int cannot_run(const std::string &why);

  private:
    void read_ledger();
    void put_down(const char *result, const std::string &point);

    std::string name_, build_;
    Options options_;
    std::map<std::string, bool> before_;  // point -> whether it held, from the ledger
    FILE *ledger_ = nullptr;
    size_t all_ = 0, chosen_ = 0, run_ = 0, failed_ = 0, held_before_ = 0;
};

// The libraries that ship, as this build made them.
std::vector<std::filesystem::path> shipped_libraries();

}  // namespace proof
