// The commands of a cycle.
#pragma once

namespace bench {

// Who answers the question that is asked for every device: the tool, or this process itself. Below
// callgrind a fork takes longer than all that is counted.
enum class Answers { by_tool, in_process };
void choose_answers(Answers wanted);

// As system().
int run_command(const char *line);

}  // namespace bench
