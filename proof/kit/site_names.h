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
    // Reads the calls of the method and of its host library with objdump.
    SiteNames(const std::filesystem::path &method, const std::filesystem::path &host);

    // "array:SymPdevShow@TimeFinder_freeze>find_bcv_pair#2": the functions on the way, outermost
    // first. #n: the function calls the next one at several places, and this is the n-th of them,
    // from the second on. The wrappers of the array's functions are left out. Behind the last one
    // stands the function of the C library that made the call, where it was not made directly:
    // "alloc:malloc@...>temporary_name>tempnam".
    std::string name(const std::string &kind, const std::string &function,
                     const std::vector<uint64_t> &offsets) const;

  private:
    struct Place {
        std::string function;  // that the return address lies in
        int occurrence = 1;    // among the calls of the same callee in that function
        std::string callee;    // of the C library; empty for any other
    };
    void read(const std::filesystem::path &library, uint64_t base);

    std::map<uint64_t, Place> places_;  // by return address
};

}  // namespace proof
