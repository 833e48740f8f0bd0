// What this host calls itself, and names that no other host gives.
#pragma once

#include <string>

namespace fimctl {

// The host's name up to its first dot, as the method writes it into its records; "host" when it
// cannot be read.
std::string short_host_name();

// A new random one, in the usual form.
std::string random_uuid();

}  // namespace fimctl
