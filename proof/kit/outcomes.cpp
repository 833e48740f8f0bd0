#include "proof/kit/outcomes.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace proof {
namespace {

constexpr char any[] = "*";

// What a block says of its points, in as few lines as possible.
class Points {
  public:
    void add(const CallPoint &point, size_t outcome) {
        outcomes_[{point.process, point.site}][{point.scope, point.fault, point.call}] = outcome;
    }

    // "at" lines by outcome.
    std::map<size_t, std::vector<std::string>> lines() const {
        std::map<size_t, std::vector<std::string>> lines;
        for (const auto &[place, ends] : outcomes_) {
            const std::string begin = "at " + place.first + " " + place.second + " ";
            for (const auto &[words, outcome] : merged(ends)) {
                lines[outcome].push_back(begin + words);
            }
        }
        return lines;
    }

  private:
    // scope, fault, call -> outcome
    using Ends = std::map<std::tuple<std::string, std::string, std::string>, size_t>;
    using Merged = std::vector<std::pair<std::string, size_t>>;

    static bool all_alike(const Ends &ends) {
        return std::all_of(ends.begin(), ends.end(),
                           [&ends](const auto &end) { return end.second == ends.begin()->second; });
    }

    template <size_t Word>
    static std::map<std::string, Ends> split(const Ends &ends) {
        std::map<std::string, Ends> parts;
        for (const auto &[words, outcome] : ends) parts[std::get<Word>(words)][words] = outcome;
        return parts;
    }

    static Merged merged(const Ends &ends) {
        if (all_alike(ends)) return {{"* * *", ends.begin()->second}};
        Merged lines;
        for (const auto &[scope, of_scope] : split<0>(ends)) {
            if (all_alike(of_scope)) {
                lines.emplace_back("* * " + scope, of_scope.begin()->second);
                continue;
            }
            for (const auto &[fault, of_fault] : split<1>(of_scope)) {
                if (all_alike(of_fault)) {
                    lines.emplace_back(fault + " * " + scope, of_fault.begin()->second);
                    continue;
                }
                for (const auto &[words, outcome] : of_fault) {
                    lines.emplace_back(fault + " " + std::get<2>(words) + " " + scope, outcome);
                }
            }
        }
        return lines;
    }

    std::map<std::pair<std::string, std::string>, Ends> outcomes_;
};

}  // namespace

std::vector<std::string> CallPoint::words() const {
    return {scenario, process, site, fault, call, scope};
}

CallPoint CallPoint::of(const std::vector<std::string> &words) {
    return {words.at(0), words.at(1), words.at(2), words.at(3), words.at(4), words.at(5)};
}

std::string CallPoint::name() const {
    std::string text;
    for (const std::string &word : words()) text += (text.empty() ? "" : "/") + word;
    return text;
}

OutcomeTable::OutcomeTable(std::filesystem::path file) : file_(std::move(file)) {
    std::ifstream in(file_);
    OutcomeText outcome;
    std::vector<std::string> reasons;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string first;
        if (!(words >> first)) continue;
        const std::string rest = line.size() > first.size() ? line.substr(first.size() + 1) : "";
        if (first == "#") {
            reasons.push_back(line);
        } else if (first == "outcome") {
            outcome = {rest};
        } else if (first == "log" && !outcome.empty()) {
            outcome.push_back(rest);
        } else if (first == "at" && !outcome.empty()) {
            std::string process, site, fault, call, scope;
            if (!(words >> process >> site >> fault >> call >> scope)) {
                throw std::runtime_error(file_.string() + ": " + line);
            }
            expected_[{process, site, fault, call, scope}] = outcome;
            if (!reasons.empty()) reasons_[outcome] = reasons;
            reasons.clear();
        } else {
            throw std::runtime_error(file_.string() + ": " + line);
        }
    }
}

const OutcomeText *OutcomeTable::expected(const CallPoint &point) const {
    const Key keys[] = {{point.process, point.site, point.fault, point.call, point.scope},
                        {point.process, point.site, point.fault, any, point.scope},
                        {point.process, point.site, any, any, point.scope},
                        {point.process, point.site, any, any, any}};
    for (const Key &key : keys) {
        const auto found = expected_.find(key);
        if (found != expected_.end()) return &found->second;
    }
    return nullptr;
}

void OutcomeTable::write(const std::vector<std::pair<CallPoint, OutcomeText>> &seen) const {
    std::vector<OutcomeText> outcomes;
    std::map<OutcomeText, size_t> numbers;
    Points points;
    for (const auto &[point, outcome] : seen) {
        const auto [at, is_new] = numbers.try_emplace(outcome, outcomes.size());
        if (is_new) outcomes.push_back(outcome);
        points.add(point, at->second);
    }
    std::filesystem::create_directories(file_.parent_path());
    std::ofstream out(file_);
    for (const auto &[number, lines] : points.lines()) {
        const OutcomeText &outcome = outcomes[number];
        const auto reasons = reasons_.find(outcome);
        if (reasons != reasons_.end()) {
            for (const std::string &reason : reasons->second) out << reason << "\n";
        }
        out << "outcome " << outcome.front() << "\n";
        for (size_t i = 1; i < outcome.size(); ++i) out << "log " << outcome[i] << "\n";
        for (const std::string &line : lines) out << line << "\n";
        out << "\n";
    }
    if (!out) throw std::runtime_error("cannot write " + file_.string());
}

}  // namespace proof
