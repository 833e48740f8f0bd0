// A real ext4 on a loop device, for what cannot be played: FIFREEZE.
#pragma once

#include <string>

namespace test {

class LoopFileSystem {
  public:
    // Makes and mounts it on directory, its image in folder. good() is false where the machine
    // cannot do that.
    explicit LoopFileSystem(const std::string &directory, const std::string &folder = "/var");
    LoopFileSystem(const LoopFileSystem &) = delete;
    LoopFileSystem &operator=(const LoopFileSystem &) = delete;
    // Thaws it, whatever a failed test has left, and unmounts it.
    ~LoopFileSystem();

    bool good() const { return mounted_; }
    const std::string &why_not() const { return trouble_; }
    const std::string &directory() const { return directory_; }
    const std::string &device() const { return device_; }
    bool is_frozen() const;

  private:
    void make();

    std::string directory_, image_, device_, trouble_;
    bool mounted_ = false;
};

}  // namespace test

// Skips the running test, with the reason, where there is no loop device for it.
#define NEEDS_LOOP_FILE_SYSTEM(file_system) \
    if (!(file_system).good())              \
    GTEST_SKIP() << "needs root and loop devices: " << (file_system).why_not()
