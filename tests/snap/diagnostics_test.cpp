// The diagnostic channel, the texts, and the command routine.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/snap/snap_fixture.h"

namespace {

using test::events;
using test::Snap;

int last_fd = -1;
int remember_fd(int fd, const char *text, int length) {
    last_fd = fd;
    return test::collect_event(fd, text, length);
}

void put_message(const std::string &text) {
    Q_strlcpy(err_msg, text.c_str(), sizeof err_msg);
}

TEST_F(Snap, the_texts_stand_in_the_order_of_their_codes_and_end_with_code_0) {
    const struct {
        int code;
        const char *text;
    } rows[] = {
        {1, "bad argument count"},
        {2, "invalid path for snap partition"},
        {3, "invalid path for cache partition"},
        {4, "snap open failed"},
        {5, "cache open failed"},
        {8, "couldn't open snap driver - check installation"},
        {9, "error reading snapshot partition parameters"},
        {10, "error reading cache partition parameters"},
        {11, "ioctl on snap driver failed"},
        {12, "memory allocation failed"},
        {13, "stat system call failed"},
        {14, "could open and read mount table"},
        {15, "file name too long"},
        {16, "couldn't create snapshot device files"},
        {17, "couldn't remove snapshot device files"},
        {18, "file system mounted on snapshot"},
        {19, "specified cache contains mounted file system"},
        {20, "snaped and cache device can't be the same"},
    };
    size_t i = 0;
    for (const auto &row : rows) {
        EXPECT_EQ(snmsg[i].code, row.code);
        EXPECT_STREQ(snmsg[i].text, row.text);
        EXPECT_STREQ(sn_msg(row.code), row.text);
        ++i;
    }
    EXPECT_EQ(snmsg[i].code, 0);
}

TEST_F(Snap, codes_without_a_row_have_no_text) {
    for (const int code : {6, 7, 0, 21, -1, 1000, -14}) EXPECT_EQ(sn_msg(code), nullptr) << code;
    EXPECT_STREQ(sn_msg(14), "could open and read mount table");
}

TEST_F(Snap, a_message_reaches_the_sink_with_its_descriptor_and_length) {
    sn_set_errf(&remember_fd, 7, 0);
    put_message("abc");
    print_err();
    EXPECT_EQ(last_fd, 7);
    EXPECT_EQ(events(), std::vector<std::string>{"abc"});
    EXPECT_STREQ(err_msg, "abc");
}

TEST_F(Snap, descriptor_0_is_a_descriptor) {
    sn_set_errf(&remember_fd, 0, 0);
    put_message("abc");
    print_err();
    EXPECT_EQ(last_fd, 0);
    EXPECT_EQ(events().size(), 1u);
}

TEST_F(Snap, nothing_is_handed_out_without_a_sink_or_with_a_negative_descriptor) {
    put_message("abc");
    sn_set_errf(nullptr, 2, 1);
    print_err();
    sn_set_errf(&test::collect_event, -1, 1);
    print_err();
    EXPECT_TRUE(events().empty());
    EXPECT_STREQ(err_msg, "abc");
}

TEST_F(Snap, with_the_newline_flag_three_characters_arrive_as_four_bytes) {
    sn_set_errf(&test::collect_event, 2, 1);
    put_message("abc");
    print_err();
    EXPECT_EQ(events(), std::vector<std::string>{"abc\n"});
    EXPECT_STREQ(err_msg, "abc\n");
}

TEST_F(Snap, nothing_of_a_longer_message_before_it_follows_the_newline) {
    sn_set_errf(&test::collect_event, 2, 1);
    put_message("a longer message");
    print_err();
    memcpy(err_msg, "abc", 4);
    print_err();
    EXPECT_EQ(events().back(), "abc\n");
    EXPECT_STREQ(err_msg, "abc\n");
}

TEST_F(Snap, an_empty_message_with_the_newline_flag_is_a_newline) {
    sn_set_errf(&test::collect_event, 2, 1);
    put_message("");
    print_err();
    EXPECT_EQ(events(), std::vector<std::string>{"\n"});
}

TEST_F(Snap, a_full_message_loses_one_character_to_its_newline) {
    put_message(std::string(2047, 'x'));
    print_err();
    EXPECT_EQ(events().at(0), std::string(2047, 'x'));
    sn_set_errf(&test::collect_event, 2, 1);
    print_err();
    EXPECT_EQ(events().at(1), std::string(2046, 'x') + "\n");
    EXPECT_EQ(strlen(err_msg), 2047u);
}

TEST_F(Snap, a_message_one_short_of_full_keeps_every_character) {
    sn_set_errf(&test::collect_event, 2, 1);
    put_message(std::string(2046, 'x'));
    print_err();
    EXPECT_EQ(events().at(0), std::string(2046, 'x') + "\n");
}

TEST_F(Snap, a_diagnostic_is_cut_to_the_message_buffer) {
    snap::diagnose("%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(events().at(0), std::string(2047, 'x'));
}

TEST_F(Snap, a_diagnostic_stands_in_the_message_buffer_without_a_sink_too) {
    sn_set_errf(nullptr, -1, 0);
    char *dir = nullptr, *type = nullptr;
    test::write_mount_table("/dev/sde /data ext4 rw 0 0\n");
    EXPECT_EQ(find_mnt("/dev/sde", &dir, &type), SN_OK);
    EXPECT_STREQ(err_msg, "mount device: /data fstype: ext4");
}

TEST_F(Snap, a_command_that_succeeds_says_nothing) {
    EXPECT_EQ(system_cmd("true", "it"), 0);
    EXPECT_EQ(happened(), "call: system true it\n");
}

TEST_F(Snap, a_command_that_fails_is_reported_and_its_status_returned_as_it_is) {
    EXPECT_EQ(system_cmd("exit", "3"), 3 << 8);
    EXPECT_EQ(happened(), "call: system exit 3\nsystem command exit 3 failed errno=0\n\n");
}

TEST_F(Snap, a_stale_error_number_is_not_reported) {
    errno = EACCES;
    system_cmd("exit", "1");
    EXPECT_TRUE(happened("system command exit 1 failed errno=0\n"));
}

TEST_F(Snap, a_shell_that_cannot_be_run_gives_minus_1_with_the_error_number) {
    const test::SystemFault no_shell("system", 1, EAGAIN);
    EXPECT_EQ(system_cmd("true", "it"), -1);
    EXPECT_TRUE(happened("system command true it failed errno=11\n"));
}

TEST_F(Snap, a_command_line_of_1023_characters_runs) {
    EXPECT_EQ(system_cmd(":", std::string(1021, 'x').c_str()), 0);
}

TEST_F(Snap, a_command_line_that_does_not_fit_is_not_run) {
    EXPECT_EQ(system_cmd("touch", ("/tmp/ran " + std::string(1100, 'x')).c_str()), -1);
    EXPECT_FALSE(test::exists("/tmp/ran"));
    ASSERT_EQ(events().size(), 1u);
    EXPECT_TRUE(events()[0].starts_with("system command touch /tmp/ran xxx"));
    EXPECT_TRUE(events()[0].ends_with("xxx failed errno=0\n"));
}

TEST_F(Snap, a_command_line_that_cannot_be_formatted_is_not_run) {
    const test::SystemFault fault("Q_snprintf", 1, 0);
    EXPECT_EQ(system_cmd("touch", "/tmp/ran"), -1);
    EXPECT_FALSE(test::exists("/tmp/ran"));
    EXPECT_EQ(happened(), "system command  failed errno=0\n\n");
}

}  // namespace
