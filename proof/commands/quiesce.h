// The commands behind the names that the library exports for the framework itself: the volume-set
// command and lockfs. They need no array and no volume, so they run in a bare root.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "proof/commands/bench.h"
#include "proof/hostile_names/root.h"

namespace proof {

class QuiesceBench {
  public:
    // programs: the folder of the rows' programs.
    explicit QuiesceBench(const std::string &programs);

    const std::vector<Command> &commands();
    Result run(const Command &command, const Fault &fault);

  private:
    hostile::Seen run(const std::string &plan, const std::string &hidden);

    hostile::Roots roots_;
    std::string stand_in_, recorder_;
    std::vector<Command> commands_;
};

}  // namespace proof
