// Runs the processes of a scenario with a tool that fails, and tells what came of it.
//
// A bench keeps one world for many runs. Its tools are stand-ins for the whole time, which do
// nothing but run the real ones until there is a plan. A run is: the processes before the faulted
// one; the faulted one; the same again without a fault, unless it succeeded; the rest; settling.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "proof/commands/scenarios.h"

namespace proof {

// One command that a process runs without a fault.
struct Command {
    std::string tool;   // base name
    std::string form;   // what all its command lines have in common: "qzdg -C -n import"
    size_t number = 0;  // which command of the process it is, from 1
    size_t output = 0;  // bytes of what is read of it; 0: nothing is
};

// What happens to it; see proof/commands/tool.
struct Fault {
    std::string kind;
    long value = 0;
    bool for_good = false;
};

struct Result {
    // What the calls of the faulted process gave, what was left then, how a repetition went.
    std::string line;
    // What must never be, whatever is expected.
    std::vector<std::string> wrong;
};

class CommandBench {
  public:
    explicit CommandBench(const CommandScenario &scenario);
    ~CommandBench();

    // The commands of the n-th process: proof/expected/commands/calls has a list for each scenario.
    // Where there is none, the processes are run without a fault, and the list is put into that
    // folder.
    const std::vector<Command> &commands(size_t process, const std::filesystem::path &folder);
    Result run(size_t process, const Command &command, const Fault &fault);
    // Ends the world; the next run makes a new one.
    void end();

  private:
    void start();
    void install_tools(const std::string &host);
    test::Phase process(size_t number);
    test::Phase faulted(size_t number, const Command &command, const Fault &fault);
    void record();
    bool read(const std::filesystem::path &kept);
    void write(const std::filesystem::path &kept) const;
    std::vector<Command> recorded();
    void run_lines(const Words &lines);
    void settle();
    std::string picture();
    std::string left();
    std::string counter_files();
    bool is_as_before();
    std::string finish(size_t number, const test::Phase &phase, Result *result);

    const CommandScenario &all_;
    const Scenario &scenario_;
    bool reached_ = false;  // the last fault met its call
    std::unique_ptr<test::LabWorld> world_;
    std::string before_;
    std::vector<std::vector<Command>> commands_;
};

// Whether a word of a command line is the same in all lines of its form.
bool is_fixed_word(const std::string &word);
// The path at which a tool is looked for on a host.
std::string tool_path(const std::string &tool);

}  // namespace proof
