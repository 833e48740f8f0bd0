// Whether a path is there.
#include "method/file_system.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

TEST(PathExists, what_is_there_exists) {
    EXPECT_TRUE(tf::path_exists("/tmp"));
    EXPECT_TRUE(tf::path_exists("/dev/null"));
}

TEST(PathExists, what_no_path_leads_to_does_not) {
    EXPECT_FALSE(tf::path_exists(""));
    EXPECT_FALSE(tf::path_exists("/tmp/none"));
    EXPECT_FALSE(tf::path_exists("/dev/null/below"));
    EXPECT_FALSE(tf::path_exists(("/tmp/" + std::string(300, 'n')).c_str()));
    ASSERT_EQ(symlink("/tmp/loop", "/tmp/loop"), 0);
    EXPECT_FALSE(tf::path_exists("/tmp/loop"));
    unlink("/tmp/loop");
}

// It may be there, and what is taken for missing is not given back.
TEST(PathExists, what_cannot_be_looked_at_exists) {
    for (const int error : {EIO, EACCES, ENOMEM}) {
        const test::SystemFault fault("access", 1, error);
        EXPECT_TRUE(tf::path_exists("/tmp/none")) << error;
    }
}

}  // namespace
