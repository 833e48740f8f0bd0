// What is expected of the points of a row that breaks single calls: the tables below
// proof/expected.
//
// A table is text that a person has read against what is promised. It holds one block for each
// distinct outcome, and in it the points that end so:
//
//   # Why it is right; kept when the table is written anew.
//   outcome freeze 11 1 QfMCmn0020N QfMCmn0020N | pairs 2 2; locks 0; captures 0; mounts 0
//   log TimeFinder_freeze: Memory allocation failure at line 3163
//   at freeze alloc:calloc@TimeFinder_freeze>allocate_records * * once
//
// "log" lines are those that the processes do not log without a fault. The words behind "at" are
// process, site, fault, call (first, middle, last) and scope (once, on); "*" is any.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace proof {

// One point: a call of one process that is met in one way.
struct CallPoint {
    std::string scenario, process, site, fault, call, scope;

    std::vector<std::string> words() const;
    static CallPoint of(const std::vector<std::string> &words);
    // "SCENARIO/PROCESS/SITE/FAULT/CALL/SCOPE"
    std::string name() const;
};

// How a point ended, as a table tells it: the line of the outcome, then the lines of its log.
using OutcomeText = std::vector<std::string>;

class OutcomeTable {
  public:
    // A table that is not there is empty; one that cannot be understood is a std::runtime_error.
    explicit OutcomeTable(std::filesystem::path file);

    // Null when the table does not know the point.
    const OutcomeText *expected(const CallPoint &point) const;

    // Replaces the table by one that expects exactly this. Reasons stay with their outcomes.
    void write(const std::vector<std::pair<CallPoint, OutcomeText>> &seen) const;

  private:
    // process, site, fault, call, scope
    using Key = std::tuple<std::string, std::string, std::string, std::string, std::string>;

    std::filesystem::path file_;
    std::map<Key, OutcomeText> expected_;
    std::map<OutcomeText, std::vector<std::string>> reasons_;
};

}  // namespace proof
