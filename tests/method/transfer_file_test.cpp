#include "method/transfer_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "method/text.h"
#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

constexpr char path[] = "/tmp/EMCTXtest";

class TransferFile : public testing::Test {
  protected:
    ~TransferFile() override { unlink(path); }

    tf::TransferFile file;
};

TEST_F(TransferFile, file_that_exists_is_not_taken) {
    test::write_file(path, "somebody else's");
    EXPECT_FALSE(file.create(path));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(file.write_line("a line"));
    EXPECT_EQ(test::read_file(path), "somebody else's");
}

TEST_F(TransferFile, link_is_not_followed) {
    ASSERT_EQ(symlink("/var/elsewhere", path), 0);
    EXPECT_FALSE(file.create(path));
    EXPECT_FALSE(test::exists("/var/elsewhere"));
}

TEST_F(TransferFile, line_stands_in_the_file_at_once) {
    ASSERT_TRUE(file.create(path));
    EXPECT_TRUE(file.write_line("one line"));
    EXPECT_TRUE(file.write_line(""));
    EXPECT_EQ(test::read_file(path), "one line\n\n");
}

TEST_F(TransferFile, file_is_private_and_closed_to_commands) {
    const int next = dup(0);
    close(next);
    ASSERT_TRUE(file.create(path));
    EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
    struct stat status = {};
    ASSERT_EQ(stat(path, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(TransferFile, line_is_no_format) {
    ASSERT_TRUE(file.create(path));
    EXPECT_TRUE(file.write_line("100%s"));
    EXPECT_EQ(test::read_file(path), "100%s\n");
}

TEST_F(TransferFile, closed_file_takes_no_line_and_may_be_closed_again) {
    ASSERT_TRUE(file.create(path));
    file.close();
    file.close();
    EXPECT_FALSE(file.write_line("a line"));
    EXPECT_EQ(test::read_file(path), "");
}

TEST_F(TransferFile, file_size_limit_is_a_failed_line_and_not_the_end) {
    ASSERT_TRUE(file.create(path));
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small = {9, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_TRUE(file.write_line("one line"));
    EXPECT_FALSE(file.write_line("another"));
    EXPECT_EQ(errno, EFBIG);
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(test::read_file(path), "one line\n");
}

TEST_F(TransferFile, line_whose_newline_alone_fits_is_a_failed_line) {
    ASSERT_TRUE(file.create(path));
    const test::SystemFault fault("write", 1, ENOSPC);
    EXPECT_FALSE(file.write_line("a line"));
    EXPECT_EQ(test::read_file(path), "");
}

TEST_F(TransferFile, line_without_its_newline_is_a_failed_line) {
    ASSERT_TRUE(file.create(path));
    const test::SystemFault fault("write", 2, ENOSPC);
    EXPECT_FALSE(file.write_line("a line"));
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(TransferFile, discarding_deletes_the_file_and_empties_the_path) {
    hdef h = {};
    tf::put(h.transfer_file, path);
    test::write_file(path, "");
    tf::discard_transfer_file(&h);
    EXPECT_FALSE(test::exists(path));
    EXPECT_STREQ(h.transfer_file, "");
    tf::discard_transfer_file(&h);
}

}  // namespace
