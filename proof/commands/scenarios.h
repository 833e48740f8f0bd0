// The scenarios in which commands fail: those of all rows, and what they leave out of the commands.
#pragma once

#include <vector>

#include "proof/kit/scenario.h"

namespace proof {

struct CommandScenario {
    Scenario scenario;
    Words everywhere;  // lines of the shell on every host, once a world
    Words only;        // forms of commands that are looked at; none: all
    // What an administrator does on the process's host when a repetition fails, too, because the
    // failed process left half of its work.
    Words administrator;
    Words settle_there;  // on the last host, each time the world is settled
    // /bin/sh replaces itself by the command, so that the end of one by a signal is seen as that;
    // else the shell makes it status 128 and the signal's number. Only signals are played then.
    bool shell_is_replaced = false;
};

const std::vector<CommandScenario> &command_scenarios();

}  // namespace proof
