// What a row expects of its points: proof/expected/ROW/SCENARIO, a text that a person has read.
//
//   freeze SymPdevSync@TimeFinder_freeze>find_bcv_pair
//       114 1012: freeze 11 3 QfMEtf1170N QfMEtf1170N; thaw 0; thaw_commit 0 | pairs 2; locks 0
//       114_after/last/once: ...
//
// A line without a blank in front names what is broken; the lines below it what is done there, and
// what has to come of it. A key "KIND/CALL/SCOPE" may be cut short: "KIND/CALL", "KIND/*/SCOPE" and
// "KIND" stand for all keys that begin or fit so; the longest one holds.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <utility>

namespace proof {

class Expected {
  public:
    // The folder of a row's tables, a file for each scenario.
    explicit Expected(std::filesystem::path folder) : folder_(std::move(folder)) {}

    // Null where no line is about it.
    const std::string *find(const std::string &scenario, const std::string &section,
                            const std::string &key);

    // Puts down what came, for write(): it replaces what stood there about the same key. Nothing is
    // right because it was put down.
    void put_down(const std::string &scenario, const std::string &section, const std::string &key,
                  const std::string &outcome);
    // Writes every scenario that something was put down about, keys as short as they can be.
    void write();

  private:
    using Keys = std::map<std::string, std::string>;  // key -> outcome
    using Sections = std::map<std::string, Keys>;     // what is broken -> its keys
    Sections &of(const std::string &scenario);
    std::filesystem::path folder_;
    std::map<std::string, Sections> read_, put_down_;
};

}  // namespace proof
