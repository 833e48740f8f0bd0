// Tables of what points are expected to give. A line of such a file is
//
//   PLACE POINTS | OUTCOME
//
// where POINTS is the name of one point of the place, or of a kind of points, or "*" for all
// others; the narrowest line holds. Lines that begin with "#" are for the reader.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace proof {

class Expectations {
  public:
    // Throws when there is no such file, or a line is none.
    explicit Expectations(const std::string &file);

    // Why the outcome is not the expected one; empty when it is.
    std::string differs(const std::string &place, const std::string &point, const std::string &kind,
                        const std::string &outcome) const;

  private:
    const std::string *of(const std::string &place, const std::string &point,
                          const std::string &kind) const;

    std::map<std::string, std::string> outcomes_;
};

// Keeps what was seen, for a reader who compares it with what should be: the fewest lines that say
// it. Nothing that was only seen is expected.
class SeenOutcomes {
  public:
    void add(const std::string &place, const std::string &point, const std::string &kind,
             const std::string &outcome);
    std::string lines() const;

  private:
    struct One {
        std::string point, kind, outcome;
    };
    std::vector<std::string> places_;
    std::map<std::string, std::vector<One>> seen_;
};

}  // namespace proof
