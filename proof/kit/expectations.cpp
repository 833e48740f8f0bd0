#include "proof/kit/expectations.h"

#include <fstream>
#include <stdexcept>

namespace proof {
namespace {

std::string commonest(const std::vector<std::string> &outcomes) {
    std::map<std::string, size_t> counts;
    std::string best;
    for (const std::string &outcome : outcomes) {
        if (++counts[outcome] > counts[best]) best = outcome;
    }
    return best;
}

}  // namespace

Expectations::Expectations(const std::string &file) {
    std::ifstream in(file);
    if (!in) throw std::runtime_error("cannot read " + file);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        const size_t bar = line.find(" | ");
        if (bar == std::string::npos) throw std::runtime_error(file + ": no expectation: " + line);
        if (!outcomes_.emplace(line.substr(0, bar), line.substr(bar + 3)).second) {
            throw std::runtime_error(file + ": expected twice: " + line);
        }
    }
}

const std::string *Expectations::of(const std::string &place, const std::string &point,
                                    const std::string &kind) const {
    for (const std::string &points : {point, kind, std::string("*")}) {
        const auto found = outcomes_.find(place + " " + points);
        if (found != outcomes_.end()) return &found->second;
    }
    return nullptr;
}

std::string Expectations::differs(const std::string &place, const std::string &point,
                                  const std::string &kind, const std::string &outcome) const {
    const std::string *expected = of(place, point, kind);
    if (expected == nullptr) return "nothing is expected of " + place + "; it gave: " + outcome;
    if (*expected == outcome) return "";
    return "expected: " + *expected + "\n         it gave:  " + outcome;
}

void SeenOutcomes::add(const std::string &place, const std::string &point, const std::string &kind,
                       const std::string &outcome) {
    std::vector<One> &all = seen_[place];
    if (all.empty()) places_.push_back(place);
    all.push_back({point, kind, outcome});
}

std::string SeenOutcomes::lines() const {
    std::string text;
    for (const std::string &place : places_) {
        std::vector<std::string> outcomes;
        std::map<std::string, std::vector<std::string>> of_kinds;
        for (const One &one : seen_.at(place)) {
            outcomes.push_back(one.outcome);
            of_kinds[one.kind].push_back(one.outcome);
        }
        const std::string usual = commonest(outcomes);
        text += place + " * | " + usual + "\n";
        std::map<std::string, std::string> usual_of;
        for (const auto &[kind, some] : of_kinds) {
            usual_of[kind] = commonest(some);
            if (usual_of[kind] != usual) {
                text += place + " " + kind + " | " + usual_of[kind] + "\n";
            }
        }
        for (const One &one : seen_.at(place)) {
            if (one.outcome == usual_of[one.kind]) continue;
            text += place + " " + one.point + " | " + one.outcome + "\n";
        }
    }
    return text;
}

}  // namespace proof
