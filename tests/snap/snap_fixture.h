// A collecting diagnostic sink, and the calls that are replaced at link level.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "snap/snap_internal.h"
#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace test {

// What happened, in order: diagnostic lines, and with "call: " before them sync, system, popen and
// ioctl.
inline std::vector<std::string> &events() {
    static std::vector<std::string> all;
    return all;
}
inline int collect_event(int, const char *text, int length) {
    events().emplace_back(text, static_cast<size_t>(length));
    return length;
}

// How the replaced calls answer.
struct Calls {
    // Freeze and thaw requests reach the kernel, which refuses them for a file system of another
    // kind; otherwise they succeed with this result (0) or fail with this error.
    bool real_ioctl = true;
    int ioctl_result = 0;
    int ioctl_error = 0;
    // The n-th pipe from now on cannot be opened; 0 for none.
    int failing_pipe = 0;
};
Calls &calls();

class Snap : public testing::Test {
  protected:
    Snap() {
        events().clear();
        calls() = {};
        on_command_line(
            [](const char *line) { events().push_back(std::string("call: system ") + line); });
        sn_set_errf(&collect_event, 2, 0);
    }
    ~Snap() override {
        sn_set_errf(nullptr, -1, 0);
        on_command_line(nullptr);
    }

    // All events, one under the other.
    static std::string happened() {
        std::string text;
        for (const std::string &event : events()) text += event + "\n";
        return text;
    }
    static bool happened(const std::string &event) {
        for (const std::string &one : events()) {
            if (one == event) return true;
        }
        return false;
    }
    static std::string text(const char *value) { return value != nullptr ? value : "null"; }
};

// A device node in the test's own /dev; only the machine's root can make one.
inline void make_node(const std::string &path, mode_t kind) {
    make_folders(path.substr(0, path.rfind('/')));
    const dev_t device = kind == S_IFCHR ? makedev(1, 3) : makedev(7, 250);
    ASSERT_EQ(mknod(path.c_str(), kind | 0600, device), 0);
}

#define SKIP_UNLESS_NODES() \
    if (!test::is_real_root()) GTEST_SKIP() << "device nodes need root"

}  // namespace test
