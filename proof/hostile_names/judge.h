// Whether a point did nothing but what the same calls do with an ordinary name.
#pragma once

#include <string>

#include "proof/hostile_names/names.h"
#include "proof/hostile_names/places.h"
#include "proof/hostile_names/root.h"

namespace hostile {

// The name that stands for this one in the run that its points are compared with: where a name is a
// whole path the calls go another way.
std::string ordinary_for(const std::string &name);

// What is wrong with a point; empty when nothing is. same: the same calls with the ordinary name.
std::string judged(const Place &place, const Setting &setting, const Name &name, const Seen &seen,
                   const Seen &same);
// The outcome of the calls, and what they left, as the table of expectations has it.
std::string outcome_of(const Setting &setting, const Seen &seen);

}  // namespace hostile
