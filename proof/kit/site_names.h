// Names for what the agent counted. The agent knows offsets in the shipped library; a name says the
// same in the words of the source, so that it survives a rebuild.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace proof {

class SiteNames {
  public:
    // Reads the calls of the shipped library with objdump.
    explicit SiteNames(const std::filesystem::path &library);

    // "array:SymPdevShow@TimeFinder_freeze>find_bcv_pair#2": the functions on the way, outermost
    // first. #n: the function calls the next one at several places, and this is the n-th of them,
    // from the second on. The wrappers of the array's functions are left out.
    std::string name(const std::string &kind, const std::string &function,
                     const std::vector<uint64_t> &offsets) const;

  private:
    struct Place {
        std::string function;  // that the return address lies in
        int occurrence = 1;    // among the calls of the same callee in that function
    };
    std::map<uint64_t, Place> places_;  // by return address
};

}  // namespace proof
