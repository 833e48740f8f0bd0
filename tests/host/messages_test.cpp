// Message texts, to the byte.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tessera_host.h"
#include "tests/host/replaced_calls.h"

namespace {

constexpr size_t message_size = 2048;

struct Messages : testing::Test {
    char err[message_size] = "old", log[message_size] = "old";
};

TEST_F(Messages, text_goes_into_both_buffers) {
    EXPECT_EQ(qlgetmsg("QfMCmn0070N", "C", sizeof err, err, "de_DE", sizeof log, log,
                       "%s: Invalid parameter value: %s=%d", "TimeFinder_ctl", "cmd", 5),
              0);
    EXPECT_STREQ(err, "TimeFinder_ctl: Invalid parameter value: cmd=5");
    EXPECT_STREQ(log, err);
}

TEST_F(Messages, each_buffer_is_bounded_by_its_own_size) {
    qlgetmsg("QfMCmn0062N", "C", 5, err, "C", 9, log, "%s: %s", "abc", "defghijk");
    EXPECT_STREQ(err, "abc:");
    EXPECT_STREQ(log, "abc: def");
}

TEST_F(Messages, buffer_of_size_0_or_null_is_left_alone) {
    qlgetmsg("QfMCmn0062N", "C", 0, err, "C", sizeof log, nullptr, "%s: %s", "a", "b");
    EXPECT_STREQ(err, "old");
}

TEST_F(Messages, system_error_text_stands_where_the_format_leaves_its_place) {
    EXPECT_EQ(qlgetmsg_errno("QfMCmn0030N", "C", sizeof err, err, "C", sizeof log, log, ENOENT,
                             "%s: Cannot stat() file %s: %%s", "get_owner_ids", "/no/such"),
              0);
    EXPECT_STREQ(err, "get_owner_ids: Cannot stat() file /no/such: No such file or directory");
    EXPECT_STREQ(log, err);
}

TEST_F(Messages, percent_signs_of_an_argument_stay_what_they_are) {
    qlgetmsg_errno("QfMCmn0120N", "C", sizeof err, err, "C", sizeof log, log, EACCES,
                   "%s: Cannot open file %s: %%s", "find_device", "/tmp/%s%n%%");
    EXPECT_STREQ(err, "find_device: Cannot open file /tmp/%s%n%%: Permission denied");
}

TEST_F(Messages, format_without_a_place_for_the_error_is_formatted_as_it_is) {
    qlgetmsg_errno("QfMCmn0062N", "C", sizeof err, err, "C", sizeof log, log, EIO,
                   "%s: 100%% of %d", "x", 7);
    EXPECT_STREQ(err, "x: 100% of 7");
}

TEST_F(Messages, unknown_error_number_has_a_text_too) {
    qlgetmsg_errno("QfMCmn0080N", "C", sizeof err, err, "C", sizeof log, log, 99999,
                   "%s: Cannot open mount table: %%s", "emc_tf__devtomp");
    EXPECT_STREQ(err, "emc_tf__devtomp: Cannot open mount table: Unknown error 99999");
}

TEST_F(Messages, over_long_format_is_cut_without_beginning_a_conversion) {
    // The text of the error and a doubled percent sign would straddle the end of the formatter's
    // own buffer.
    const std::string filler(2044, 'a');
    qlgetmsg_errno("QfMCmn0062N", "C", sizeof err, err, "C", sizeof log, log, EIO,
                   ("%s" + filler + "%%s").c_str(), "x");
    EXPECT_EQ(std::string(err), "x" + filler + "I");
    qlgetmsg_errno("QfMCmn0062N", "C", sizeof err, err, "C", sizeof log, log, EIO,
                   ("%s" + filler + "%%b").c_str(), "x");
    EXPECT_EQ(std::string(err), "x" + filler + "b");
}

TEST_F(Messages, percent_signs_of_the_system_error_text_stay_what_they_are) {
    test::replaced().error_text = "100% full %s %n";
    qlgetmsg_errno("QfMCmn0120N", "C", sizeof err, err, "C", sizeof log, log, ENOSPC,
                   "%s: Cannot open file %s: %%s", "find_device", "/tmp/x");
    test::replaced() = {};
    EXPECT_STREQ(err, "find_device: Cannot open file /tmp/x: 100% full %s %n");
    EXPECT_STREQ(log, err);
}

TEST_F(Messages, text_that_cannot_be_formatted_is_empty) {
    const wchar_t unprintable[] = {static_cast<wchar_t>(0x20ac), 0};
    EXPECT_EQ(qlgetmsg("QfMCmn0062N", "C", sizeof err, err, "C", sizeof log, log, "%s: %ls", "x",
                       unprintable),
              0);
    EXPECT_STREQ(err, "");
    EXPECT_STREQ(log, "");
}

}  // namespace
