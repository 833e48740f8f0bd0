// Programs of the host that fimctl runs, and command lines as an operator would type them.
#pragma once

#include <string>
#include <vector>

namespace fimctl {

// What a program left.
struct ToolResult {
    int status = 127;      // exit status; 127 when it could not be started, 128 and its signal
    std::string out, err;  // what it said
    std::string output;    // both, as they came

    bool good() const { return status == 0; }
    // For a message: the last line of what it said, or its status where it said nothing.
    std::string reason() const;
};

// Who can interrupt a program: the terminal, as it interrupts fimctl; or nobody, because it must
// not be hit half-way through an import or a mount.
enum class Reach { terminal, nobody };

// Runs a program without a shell and without standard input, and waits for its end.
ToolResult run_tool(const std::vector<std::string> &words, Reach reach = Reach::terminal);

// One word for the shell: as it is, or in quotes where a shell would take it apart.
std::string shell_word(const std::string &word);
std::string command_line(const std::vector<std::string> &words);

}  // namespace fimctl
