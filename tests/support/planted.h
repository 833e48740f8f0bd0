// What somebody else may put under the name of a temporary file, and whether it is still there.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/private_root.h"

namespace test {

enum class Planted { link, link_to_nowhere, pipe, folder };

inline std::string planted_name(const testing::TestParamInfo<Planted> &info) {
    const char *const names[] = {"link", "link_to_nowhere", "pipe", "folder"};
    return names[static_cast<int>(info.param)];
}
inline const auto every_planted =
    testing::Values(Planted::link, Planted::link_to_nowhere, Planted::pipe, Planted::folder);

// Puts it there, and takes it away at the end.
class PlantedThing {
  public:
    PlantedThing(Planted kind, const std::string &path) : kind_(kind), path_(path) {
        write_file(target, "somebody else's");
        int result = 0;
        if (kind == Planted::link) result = symlink(target, path.c_str());
        if (kind == Planted::link_to_nowhere) result = symlink(nowhere, path.c_str());
        if (kind == Planted::pipe) result = mkfifo(path.c_str(), 0600);
        if (kind == Planted::folder) result = mkdir(path.c_str(), 0700);
        EXPECT_EQ(result, 0);
        lstat(path.c_str(), &before_);
    }
    ~PlantedThing() {
        if (kind_ == Planted::folder) {
            rmdir(path_.c_str());
        } else {
            unlink(path_.c_str());
        }
        unlink(target);
    }
    PlantedThing(const PlantedThing &) = delete;
    PlantedThing &operator=(const PlantedThing &) = delete;

    void expect_untouched() const {
        struct stat now = {};
        ASSERT_EQ(lstat(path_.c_str(), &now), 0);
        EXPECT_EQ(now.st_ino, before_.st_ino);
        EXPECT_EQ(now.st_mode, before_.st_mode);
        EXPECT_EQ(now.st_ctim.tv_nsec, before_.st_ctim.tv_nsec);
        EXPECT_EQ(read_file(target), "somebody else's");
        EXPECT_FALSE(exists(nowhere));
    }

  private:
    static constexpr char target[] = "/var/somebody_elses";
    static constexpr char nowhere[] = "/var/nowhere";

    Planted kind_;
    std::string path_;
    struct stat before_ = {};
};

}  // namespace test
