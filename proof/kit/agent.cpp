#include "proof/kit/agent.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace proof {
namespace {

namespace fs = std::filesystem;

constexpr char library[] = "libtfagent.so", report[] = "agent";

}  // namespace

void install_agent(const test::LabWorld &world) {
    fs::copy_file(TF_BINARY_DIR "/lib/libtfagent.so", world.exchange() / library,
                  fs::copy_options::overwrite_existing);
}

test::Words agent_environment(const std::string &plan) {
    return {std::string("LD_PRELOAD=/exchange/") + library, "TFAGENT_PLAN=" + plan,
            std::string("TFAGENT_REPORT=/exchange/") + report};
}

void forget_agent_lines(const test::LabWorld &world) {
    fs::remove(world.exchange() / report);
}

std::vector<std::string> agent_lines(const test::LabWorld &world) {
    std::vector<std::string> lines;
    std::ifstream in(world.exchange() / report);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> wrong_at_the_end(const std::vector<std::string> &lines, int status) {
    std::vector<std::string> wrong;
    for (const std::string &line : lines) {
        if (line.starts_with("held ")) wrong.push_back("a block stays: " + line);
    }
    const bool unloaded = std::find(lines.begin(), lines.end(), "unloaded") != lines.end();
    if (!unloaded && status == 0) wrong.push_back("the library was not unloaded");
    return wrong;
}

}  // namespace proof
