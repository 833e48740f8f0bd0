#include "bench/kit/callgrind.h"

#include <valgrind/callgrind.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

// The instructions in one file of callgrind, under the mark that had it written. A file that is
// written at the end of a process has no mark.
void add_file(const std::filesystem::path &file, std::map<std::string, double> *instructions) {
    const std::string trigger = "desc: Trigger: Client Request: ";
    std::string mark;
    double counted = 0;
    std::ifstream in(file);
    for (std::string text; std::getline(in, text);) {
        if (text.starts_with(trigger)) mark = text.substr(trigger.size());
        // The totals of a file stand behind its lines and are those of the summary, where it has
        // one.
        for (const std::string sum : {"summary: ", "totals: "}) {
            if (text.starts_with(sum)) counted = std::stod(text.substr(sum.size()));
        }
    }
    if (!mark.empty()) (*instructions)[mark] += counted;
}

}  // namespace

void count_from_here() {
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
}

void count_to_here(const std::string &mark) {
    CALLGRIND_DUMP_STATS_AT(mark.c_str());
    CALLGRIND_STOP_INSTRUMENTATION;
}

std::map<std::string, double> count_instructions(const std::string &program,
                                                 const std::string &arguments) {
    char folder[] = "/tmp/bench.XXXXXX";
    if (mkdtemp(folder) == nullptr) throw std::runtime_error("cannot make a folder in /tmp");
    const std::filesystem::path path(folder);
    // Each process numbers its files for itself.
    const std::string line =
        "valgrind --quiet --tool=callgrind --instr-atstart=no "
        "--callgrind-out-file=" +
        (path / "out.%p").string() + " '" + program + "' " + arguments + " >&2";
    const int status = system(line.c_str());
    std::map<std::string, double> instructions;
    for (const auto &file : std::filesystem::directory_iterator(path)) {
        add_file(file.path(), &instructions);
    }
    std::filesystem::remove_all(path);
    if (status != 0) throw std::runtime_error("failed: " + line);
    return instructions;
}

}  // namespace bench
