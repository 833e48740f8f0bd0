// Drives the lab's commands as a user does. These tests run in the machine's own namespaces, since
// worlds make theirs.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace test {

#define SKIP_WITHOUT_ROOT() \
    if (geteuid() != 0) GTEST_SKIP() << "worlds need root"

struct Outcome {
    int status = -1;
    std::string output;  // both streams
};

// Runs a line of the shell with the built programs on the PATH.
inline Outcome shell(const std::string &line) {
    const std::string whole = "exec 2>&1; PATH=" TF_BINARY_DIR "/bin:$PATH; " + line;
    FILE *out = popen(whole.c_str(), "re");
    Outcome outcome;
    char part[4096];
    for (size_t size; (size = fread(part, 1, sizeof part, out)) > 0;) {
        outcome.output.append(part, size);
    }
    const int status = pclose(out);
    outcome.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return outcome;
}

// A folder for a case's files, gone with it; below the build folder, so that a killed case leaves
// nothing anywhere else.
class Scratch {
  public:
    Scratch() : path_(TF_BINARY_DIR "/scratch.XXXXXX") {
        std::string name = path_;
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        path_ = name;
    }
    ~Scratch() { std::filesystem::remove_all(path_); }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    std::string operator/(const std::string &name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

}  // namespace test
