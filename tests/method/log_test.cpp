// The log routines.
#include "method/log.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "method/interface.h"
#include "method/report.h"
#include "tests/method/message_look_ups.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/method_fixture.h"

namespace {

using Log = test::Method;

std::vector<size_t> line_lengths() {
    std::vector<size_t> lengths;
    for (const std::string &line : test::log_lines()) lengths.push_back(line.size());
    return lengths;
}

std::string alphabet(size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    return text;
}

TEST_F(Log, an_empty_text_makes_no_sink_call) {
    char text[] = "";
    emc_tf__log(text);
    EXPECT_TRUE(test::log_lines().empty());
}

TEST_F(Log, a_null_text_or_a_missing_sink_is_ignored) {
    emc_tf__log(nullptr);
    logf_p = nullptr;
    char text[] = "x";
    emc_tf__log(text);
    EXPECT_TRUE(test::log_lines().empty());
}

TEST_F(Log, a_text_of_3000_characters_comes_in_three_pieces_and_is_whole_afterwards) {
    std::string text = alphabet(3000);
    emc_tf__log(text.data());
    EXPECT_EQ(line_lengths(), (std::vector<size_t>{1024, 1024, 952}));
    EXPECT_EQ(test::log_lines()[0] + test::log_lines()[1] + test::log_lines()[2], alphabet(3000));
    EXPECT_EQ(text, alphabet(3000));
}

TEST_F(Log, a_text_of_exactly_1024_characters_is_one_call_and_of_1025_two) {
    std::string text = alphabet(1024);
    emc_tf__log(text.data());
    EXPECT_EQ(line_lengths(), (std::vector<size_t>{1024}));
    test::log_lines().clear();
    text = alphabet(1025);
    emc_tf__log(text.data());
    EXPECT_EQ(line_lengths(), (std::vector<size_t>{1024, 1}));
}

// Not even for a moment: it may be another thread's, or no memory at all.
TEST_F(Log, nothing_behind_a_text_is_touched) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *const pages =
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char *const end = static_cast<char *>(pages) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    for (const size_t length : {1U, 1024U, 1025U, 2048U}) {
        memcpy(end - length - 1, alphabet(length).c_str(), length + 1);
        emc_tf__log(end - length - 1);
        EXPECT_EQ(std::string(end - length - 1), alphabet(length));
    }
    munmap(pages, 2 * page);
}

TEST_F(Log, a_sink_that_switches_itself_off_gets_the_rest_of_its_text) {
    logf_p = [](const char *line) {
        test::collect_line(line);
        TimeFinder_set_logf(nullptr, 2);
    };
    std::string text = alphabet(1500);
    emc_tf__log(text.data());
    EXPECT_EQ(line_lengths(), (std::vector<size_t>{1024, 476}));
    EXPECT_EQ(text, alphabet(1500));
    emc_tf__log(text.data());
    EXPECT_EQ(test::log_lines().size(), 2U);
}

TEST_F(Log, it_does_not_look_at_the_level) {
    set_level(-1);
    char text[] = "said all the same";
    emc_tf__log(text);
    emc_tf__log_fmt("%s", "and this");
    EXPECT_EQ(whole_log(), "said all the same\nand this\n");
}

TEST_F(Log, a_formatted_line_is_cut_to_1022_characters) {
    emc_tf__log_fmt("%s", alphabet(2000).c_str());
    ASSERT_EQ(test::log_lines().size(), 1U);
    EXPECT_EQ(test::log_lines()[0], alphabet(1022));
}

TEST_F(Log, a_formatted_line_of_1022_characters_is_whole_and_of_1023_loses_one) {
    emc_tf__log_fmt("%s", alphabet(1022).c_str());
    emc_tf__log_fmt("%s", alphabet(1023).c_str());
    EXPECT_EQ(test::log_lines()[0], alphabet(1022));
    EXPECT_EQ(test::log_lines()[1], alphabet(1022));
}

TEST_F(Log, traces_appear_from_level_2_on) {
    for (const int32_t level : {0, 1}) {
        set_level(level);
        tf::log_trace("Waiting for %s...", "SymInit");
        EXPECT_TRUE(test::log_lines().empty()) << level;
    }
    set_level(2);
    tf::log_trace("Waiting for %s...", "SymInit");
    EXPECT_TRUE(logged("Waiting for SymInit..."));
}

TEST_F(Log, progress_appears_from_level_0_on) {
    set_level(-1);
    tf::log_progress("Split started ...");
    EXPECT_TRUE(test::log_lines().empty());
    set_level(0);
    tf::log_progress("Split started ...");
    EXPECT_TRUE(logged("Split started ..."));
}

TEST_F(Log, at_a_negative_level_a_failure_fills_both_buffers_and_the_number_but_not_the_log) {
    set_level(-1);
    EXPECT_EQ(tf::fail(tf::ErrorNumber::no_bcv, tf::msg::not_in_pair, "find_bcv_pair", "/dev/x"),
              11);
    expect_failure(10, "find_bcv_pair: Device /dev/x is not a member of a BCV pair");
    EXPECT_TRUE(test::log_lines().empty());
}

TEST_F(Log, at_level_0_a_failure_is_logged_once_as_it_stands_in_the_buffer) {
    set_level(0);
    tf::fail(tf::ErrorNumber::no_bcv, tf::msg::not_in_pair, "find_bcv_pair", "/dev/x");
    EXPECT_EQ(whole_log(), std::string(errmsg) + "\n");
}

TEST_F(Log, logging_and_reporting_allocate_nothing) {
    set_level(2);
    test::no_more_faults();
    tf::log_trace("Waiting for %s...", "SymInit");
    tf::fail(tf::ErrorNumber::no_bcv, tf::msg::not_in_pair, "find_bcv_pair", "/dev/x");
    EXPECT_EQ(test::allocations_seen(), 0);
    EXPECT_EQ(test::log_lines().size(), 2U);
}

TEST_F(Log, a_failure_of_a_system_call_carries_the_error_that_errno_held) {
    errno = EACCES;
    tf::fail(tf::ErrorNumber::limit, tf::msg::cannot_open_file, "find_device", "/tmp/50%s%d");
    expect_failure(13, "find_device: Cannot open file /tmp/50%s%d: Permission denied");
}

TEST_F(Log, a_message_whose_argument_is_missing_prints_null) {
    const char *volatile unset = nullptr;  // what the compiler cannot see
    tf::fail(tf::ErrorNumber::parameter, tf::msg::parameter_null, "TimeFinder_ckpt", unset);
    expect_failure(7, "TimeFinder_ckpt: A required parameter is NULL: (null)");
}

TEST_F(Log, a_message_longer_than_the_buffers_is_cut_to_2047_characters) {
    const std::string name = alphabet(4000);
    tf::fail(tf::ErrorNumber::no_bcv, tf::msg::not_in_pair, "find_bcv_pair", name.c_str());
    EXPECT_EQ(std::string(errmsg), ("find_bcv_pair: Device " + name).substr(0, 2047));
    EXPECT_EQ(std::string(logmsg), std::string(errmsg));
}

// Operators read the log in the language in which they read the message.
TEST_F(Log, the_text_in_the_messages_locale_is_the_one_that_is_logged) {
    const test::MessageLookUps look_ups;
    tf::fail(tf::ErrorNumber::no_bcv, tf::msg::not_in_pair, "find_bcv_pair", "/dev/x");
    EXPECT_STREQ(errmsg, "M");
    EXPECT_STREQ(logmsg, "L");
    EXPECT_EQ(whole_log(), "M\n");
    tf::fail(tf::ErrorNumber::limit, tf::msg::cannot_open_file, "find_device", "/tmp/x");
    EXPECT_EQ(whole_log(), "M\nM\n");
    tf::log_current_message();
    EXPECT_EQ(whole_log(), "M\nM\nM\n");
}

TEST_F(Log, each_locale_is_looked_up_with_its_own_buffer) {
    TimeFinder_set_locale("de_DE", "fr_FR");
    const test::MessageLookUps look_ups;
    tf::fail(tf::ErrorNumber::no_bcv, tf::msg::not_in_pair, "find_bcv_pair", "/dev/x");
    errno = EACCES;
    tf::fail(tf::ErrorNumber::limit, tf::msg::cannot_open_file, "find_device", "/tmp/x");
    ASSERT_EQ(look_ups.seen.size(), 2U);
    for (const test::LookUp &asked : look_ups.seen) {
        EXPECT_EQ(asked.lc_messages, "de_DE");
        EXPECT_EQ(asked.errmsg_size, 2048U);
        EXPECT_EQ(asked.errmsg, errmsg);
        EXPECT_EQ(asked.lc_logging, "fr_FR");
        EXPECT_EQ(asked.logmsg_size, 2048U);
        EXPECT_EQ(asked.logmsg, logmsg);
    }
    EXPECT_EQ(look_ups.seen[0].function, "qlgetmsg");
    EXPECT_EQ(look_ups.seen[0].id, "QfMEtf1180N");
    EXPECT_EQ(look_ups.seen[0].format, "%s: Device %s is not a member of a BCV pair");
    EXPECT_EQ(look_ups.seen[1].function, "qlgetmsg_errno");
    EXPECT_EQ(look_ups.seen[1].id, "QfMCmn0120N");
    EXPECT_EQ(look_ups.seen[1].format, "%s: Cannot open file %s: %%s");
    EXPECT_EQ(look_ups.seen[1].errnum, EACCES);
}

}  // namespace
