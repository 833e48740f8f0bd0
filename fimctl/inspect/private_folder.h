// A folder in which a program may answer.
#pragma once

#include <string>

namespace fimctl {

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

}  // namespace fimctl
