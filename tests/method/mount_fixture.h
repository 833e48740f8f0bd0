// What the tests of the mount look-up share: a process that has not read the mount table yet, and
// answers as one line.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "method/mount_lookup.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"

namespace test {

class MountLookup : public Method {
  protected:
    MountLookup() {
        make_folders("/tmp/sub");
        // Every test begins like a fresh process: a table that is read anew and, since the cache
        // knows no refresh, one whose devices it has not met yet.
        if (mnttab_cached_list != nullptr) fresh = false;
    }
    ~MountLookup() override { rmdir("/tmp/sub"); }

    void SetUp() override {
        if (!fresh) GTEST_SKIP() << "the mount table of this process has been read; run by ctest";
    }

    static uint64_t device_of(const std::string &path) {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        return status.st_dev;
    }

    // "STATUS DEVICE TYPE DIRECTORY" of a path.
    std::string lookup(const std::string &path, size_t device_size = 1024) {
        char type[64] = "", dir[64] = "";
        std::string device(device_size + 1, '~');
        const int32_t result = emc_tf__find_mount_device(path.c_str(), device.data(), device_size,
                                                         type, sizeof type, dir, sizeof dir);
        EXPECT_EQ(device.back(), '~') << "written behind the buffer";
        if (result != 0) return std::to_string(result);
        return "0 " + std::string(device.c_str()) + " " + type + " " + dir;
    }
    std::string by_device(uint64_t dev) {
        char dir[64] = "", name[64] = "", type[64] = "";
        const int32_t result =
            emc_tf__devtomp(dev, dir, sizeof dir, name, sizeof name, type, sizeof type);
        if (result != 0) return std::to_string(result);
        return "0 " + std::string(name) + " " + type + " " + dir;
    }

    bool fresh = true;
};

}  // namespace test
