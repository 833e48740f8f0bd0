// The names that are tried: every byte, what means something to a shell, to a tool or to a path,
// and every length at which a buffer ends.
#pragma once

#include <string>
#include <vector>

namespace hostile {

struct Name {
    std::string id;    // "byte-3b", "shell-backquotes", "length-1024-quotes"
    std::string text;  // never with a NUL
};

// What a run of a name would do: it runs this program, which stands under many names in PATH, too.
inline constexpr char canary[] = "/proof/bin/canary";

std::vector<Name> all_names();

// What a name holds that one of the places treats in its own way; the first that applies.
std::string kind_of(const std::string &text);

}  // namespace hostile
