#include "tests/fimctl/killing.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "tests/fimctl/world.h"

namespace test {
namespace {

namespace fs = std::filesystem;

std::map<pid_t, pid_t> parents() {
    std::map<pid_t, pid_t> found;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::ifstream file(entry.path() / "stat");
        std::string line;
        std::getline(file, line);
        const size_t name_end = line.rfind(')');
        if (name_end == std::string::npos) continue;
        char state = ' ';
        int parent = 0;
        if (sscanf(line.c_str() + name_end + 1, " %c %d", &state, &parent) != 2) continue;
        found[static_cast<pid_t>(std::stol(name))] = parent;
    }
    return found;
}

}  // namespace

std::vector<pid_t> descendants_of(pid_t pid) {
    const auto known = parents();
    std::vector<pid_t> found = {pid};
    for (size_t i = 0; i < found.size(); ++i) {
        for (const auto &[child, parent] : known) {
            if (parent == found[i]) found.push_back(child);
        }
    }
    found.erase(found.begin());
    return found;
}

void kill_with_all(pid_t pid) {
    kill(pid, SIGSTOP);
    const auto all = descendants_of(pid);
    for (const pid_t one : all) kill(one, SIGSTOP);
    for (const pid_t one : all) kill(one, SIGKILL);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    for (const pid_t one : all) EXPECT_TRUE(wait_until_gone(one)) << one;
}

}  // namespace test
