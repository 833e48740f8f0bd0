// A program that is asked something, and the folder in which it may answer.
#pragma once

#include <string>
#include <vector>

namespace fimctl {

struct Said {
    int status = -1;  // exit status; -1 when it could not be run or was killed
    std::string out, err;

    // Its last word about what went wrong, for a message.
    std::string reason() const;
};

// Runs a program without a shell and without standard input, and waits for its end.
Said ask_tool(const std::vector<std::string> &words);

// A folder for temporary files, closed to others, removed with what is in it.
class PrivateFolder {
  public:
    // Throws Failure (failed).
    PrivateFolder();
    ~PrivateFolder();
    PrivateFolder(const PrivateFolder &) = delete;
    PrivateFolder &operator=(const PrivateFolder &) = delete;
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A command line as it would be typed, with what a shell would take apart in quotes.
std::string command_line(const std::vector<std::string> &words);

}  // namespace fimctl
