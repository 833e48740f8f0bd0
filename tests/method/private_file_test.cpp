#include "method/private_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "method/descriptor.h"
#include "tests/support/planted.h"
#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

constexpr char path[] = "/tmp/private";

class PrivateFile : public testing::Test {
  protected:
    ~PrivateFile() override { unlink(path); }
};

// Runs without a standard stream for as long as it lives.
class WithoutStream {
  public:
    explicit WithoutStream(int stream)
        : stream_(stream), copy_(fcntl(stream, F_DUPFD_CLOEXEC, 100)) {
        close(stream);
    }
    ~WithoutStream() {
        dup2(copy_, stream_);
        close(copy_);
    }
    WithoutStream(const WithoutStream &) = delete;
    WithoutStream &operator=(const WithoutStream &) = delete;

  private:
    int stream_, copy_;
};

TEST_F(PrivateFile, is_never_opened_in_the_place_of_a_standard_stream) {
    for (const int stream : {STDIN_FILENO, STDERR_FILENO}) {
        int made = -1, opened = -1, flags = 0, low = 0;
        {
            const WithoutStream without(stream);
            made = tf::create_private(path);
            opened = tf::open_file(path, O_RDWR);
            flags = fcntl(opened, F_GETFD);
            low = fcntl(stream, F_GETFD);
        }
        EXPECT_GT(made, STDERR_FILENO);
        EXPECT_GT(opened, STDERR_FILENO);
        EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(low, -1);
        close(made);
        close(opened);
        unlink(path);
    }
}

TEST_F(PrivateFile, is_not_left_behind_when_nobody_gets_its_descriptor) {
    int made = 0, error = 0;
    {
        const WithoutStream without(STDIN_FILENO);
        const test::SystemFault fault("fcntl", 1, EMFILE);
        made = tf::create_private(path);
        error = errno;
    }
    EXPECT_EQ(made, -1);
    EXPECT_EQ(error, EMFILE);
    EXPECT_FALSE(test::exists(path));
}

TEST_F(PrivateFile, of_somebody_else_is_not_removed_with_its_descriptor) {
    test::write_file(path, "kept");
    int opened = 0;
    {
        const WithoutStream without(STDIN_FILENO);
        const test::SystemFault fault("fcntl", 1, EMFILE);
        opened = tf::open_file(path, O_RDWR);
    }
    EXPECT_EQ(opened, -1);
    EXPECT_EQ(test::read_file(path), "kept");
}

TEST_F(PrivateFile, own_file_is_removed) {
    ASSERT_TRUE(tf::create_private_file(path));
    tf::remove_private_file(path);
    EXPECT_FALSE(test::exists(path));
    tf::remove_private_file(path);
    tf::remove_private_file(nullptr);
}

TEST_F(PrivateFile, file_with_a_second_name_keeps_that_one) {
    test::write_file("/tmp/first_name", "kept");
    ASSERT_EQ(link("/tmp/first_name", path), 0);
    tf::remove_private_file(path);
    EXPECT_FALSE(test::exists(path));
    EXPECT_EQ(test::read_file("/tmp/first_name"), "kept");
    unlink("/tmp/first_name");
}

// A tool may have given the file that it was named to somebody.
TEST_F(PrivateFile, file_of_another_user_is_removed_as_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "needs root to give a file away";
    test::write_file(path, "gone");
    ASSERT_EQ(chown(path, 1, 1), 0);
    tf::remove_private_file(path);
    EXPECT_FALSE(test::exists(path));
}

class PlantedFile : public testing::TestWithParam<test::Planted> {};

TEST_P(PlantedFile, is_neither_opened_nor_removed) {
    const test::PlantedThing planted(GetParam(), path);
    EXPECT_FALSE(tf::create_private_file(path));
    EXPECT_EQ(errno, EEXIST);
    tf::remove_private_file(path);
    planted.expect_untouched();
}

INSTANTIATE_TEST_SUITE_P(Every, PlantedFile, test::every_planted, test::planted_name);

}  // namespace
