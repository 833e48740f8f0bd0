// How every failure of the volume manager is told: one sentence for the administrator.
#pragma once

#include <stdexcept>
#include <string>

namespace qz {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws "cannot WHAT: REASON", with errno's text.
[[noreturn]] void fails(const std::string &what);

}  // namespace qz
