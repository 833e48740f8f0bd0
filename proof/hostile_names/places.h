// The places in which a name can stand, each with the operations that see it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "proof/hostile_names/setting.h"

namespace hostile {

struct Place {
    std::string name;
    std::vector<std::string> operations;
    // Puts the name into its place.
    std::function<void(Setting *, const std::string &)> put;
    // How much of the name fits; what is longer is cut there.
    size_t limit;
    // Characters that mean something in this place, so that a tool gets a part of the name at most.
    std::string special;

    // Whether a tool gets the name whole.
    bool fits(const std::string &text) const {
        return text.size() <= limit && text.find_first_of(special) == std::string::npos;
    }
};

std::vector<Place> all_places();

}  // namespace hostile
