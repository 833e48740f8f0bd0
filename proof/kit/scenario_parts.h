// What the scenarios are put together from.
#pragma once

#include <string>

#include "proof/kit/scenario.h"

namespace proof::part {

// Captures of commands that failed stay for the administrator; he removes them in the end.
inline constexpr char remove_captures[] = "rm -f /tmp/QfMS* /tmp/EMCTX* /tmp/EMCTF*";
// Without its database the array's library is begun for the first time again.
inline constexpr char forget_the_snapshot[] = "rm -rf /exchange/text* /var/symapi/db";
inline constexpr char let_the_array_settle[] = "tfarray clock advance 60";

// Splits a pair ("SERIAL STANDARD BCV") whether it is split or not.
inline std::string split(const std::string &pair) {
    return "tfarray split " + pair + " >/dev/null 2>&1 || true";
}

// Establishes a pair whether it is established or not.
inline std::string establish(const std::string &pair) {
    return "tfarray establish " + pair + " >/dev/null 2>&1 || true";
}

Scenario volumes();
Scenario imported();
Scenario restored();
Scenario names();
Scenario devices();
Scenario quiesce();
Scenario parser();
Scenario resolved();

}  // namespace proof::part
