// The agent of proof/agent in a process of a world: how it is put there, and what it tells.
//
//   install_agent(world);
//   world.try_phase(steps, limit, 2, agent_environment(only_records));
//   wrong_at_the_end(agent_lines(world), phase.status)      empty: nothing was left in memory
#pragma once

#include <string>
#include <vector>

#include "tests/support/lab_world.h"

namespace proof {

// A plan that meets no call: the agent counts the blocks that the shipped libraries hold.
inline constexpr char only_records[] = "record";

// Once a world.
void install_agent(const test::LabWorld &world);
// The environment of a process that has the agent, which follows this plan (proof/agent/sites.h).
// Its report is the only one of the world.
test::Words agent_environment(const std::string &plan);
// Removes the report of an earlier process.
void forget_agent_lines(const test::LabWorld &world);
// The lines of the report.
std::vector<std::string> agent_lines(const test::LabWorld &world);

// What is wrong with a process that ended with this status: the library is still loaded once it was
// unloaded, or the shipped libraries hold blocks then. A process that was killed has not come so
// far.
std::vector<std::string> wrong_at_the_end(const std::vector<std::string> &lines, int status);

}  // namespace proof
