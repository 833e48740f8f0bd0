// A command line as the shell would take it apart, had it nothing but plain and quoted words.
#pragma once

#include <string>
#include <vector>

namespace fuzz {

struct CommandLine {
    std::vector<std::string> words;  // the tool and its arguments, quotes removed
    std::string in, out, err;  // where the three streams are redirected to; empty: they are not
};

// Takes a line apart. Everything that is neither a plain word nor a quoted one is a finding: some
// name has become a part of the language of the shell. So is a tool that the library has no
// business to run.
CommandLine parse_command_line(const char *line);

}  // namespace fuzz
