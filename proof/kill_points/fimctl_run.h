// fimctl as the framework: a whole run around a command, killed and cleaned up.
#pragma once

#include <memory>
#include <vector>

#include "proof/kill_points/ground.h"

namespace proof {

class FimctlRun {
  public:
    FimctlRun();
    ~FimctlRun();

    // What its processes do when nothing is in their way.
    std::vector<Place> places();
    // Kills one of its processes there, or all; then fimctl cleanup, and a run that goes well.
    Wrong kill(const Kill &kill, bool verbose);

  private:
    void make_world();
    int run_watched(const Words &options, std::string &said);
    void recover(Wrong &wrong);

    std::unique_ptr<test::LabWorld> world_;
    std::string before_;
};

}  // namespace proof
