#include "tests/support/leaks.h"

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <set>

#include "tests/support/private_root.h"

namespace test {
namespace {

std::set<std::string> known_descriptors;
std::set<std::string> known_mounts;
std::set<std::string> known_files;

std::set<std::string> descriptors() {
    std::set<std::string> found;
    DIR *dir = opendir("/proc/self/fd");
    const std::string own = std::to_string(dirfd(dir));
    while (const dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.' && own != entry->d_name) found.insert(entry->d_name);
    }
    closedir(dir);
    return found;
}

std::set<std::string> mounts() {
    std::set<std::string> found;
    std::ifstream in("/proc/self/mountinfo");
    for (std::string line; std::getline(in, line);) found.insert(line);
    return found;
}

std::set<std::string> files() {
    const auto left = files_left_in_tmp();
    return {left.begin(), left.end()};
}

std::string new_ones(const char *what, const std::set<std::string> &known,
                     const std::set<std::string> &now) {
    std::string text;
    for (const std::string &item : now) {
        if (!known.contains(item)) text += std::string(what) + " " + item + "\n";
    }
    return text;
}

std::string children() {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid == -1 && errno == ECHILD) return "";
    return pid == 0 ? "a child process still runs\n" : "a child process was not waited for\n";
}

}  // namespace

void remember_resources() {
    known_descriptors = descriptors();
    known_mounts = mounts();
    known_files = files();
}

std::string resources_left() {
    return new_ones("descriptor", known_descriptors, descriptors()) +
           new_ones("mount", known_mounts, mounts()) + new_ones("file", known_files, files()) +
           children();
}

}  // namespace test
