// The set-up entry points.
#include "method/interface.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "tests/support/allocation_faults.h"
#include "tests/support/method_fixture.h"

namespace {

constexpr char version_line[] = "TimeFinder FIM $Revision$";
constexpr char parser_banner[] = "pQfMS FIM config string parser $Revision$";

using Interface = test::Method;

// For the lines of set_logf itself, which the fixture has already used up once.
class FreshSink : public testing::Test {
  protected:
    FreshSink() { test::log_lines().clear(); }
    ~FreshSink() override { TimeFinder_set_logf(nullptr, -1); }
};

TEST(Init, stores_the_three_pointers_in_argument_order) {
    int32_t number = 5;
    char log[TF_MESSAGE_SIZE], error[TF_MESSAGE_SIZE];
    EXPECT_EQ(TimeFinder_init(&number, log, error), 0);
    EXPECT_EQ(emc_tf_errnop, &number);
    EXPECT_EQ(mth_logmsg, log);
    EXPECT_EQ(mth_errmsg, error);
    EXPECT_EQ(number, 5);
}

TEST(Init, accepts_null_pointers_and_a_later_failure_writes_nothing_through_them) {
    EXPECT_EQ(TimeFinder_init(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(TimeFinder_ctl(nullptr, 0), 11);
}

TEST(Init, a_failure_without_buffers_still_reaches_the_log) {
    TimeFinder_init(nullptr, nullptr, nullptr);
    TimeFinder_set_logf(&test::collect_line, 0);
    test::log_lines().clear();
    TimeFinder_ctl(nullptr, 0);
    ASSERT_EQ(test::log_lines().size(), 1U);
    EXPECT_EQ(test::log_lines()[0], "TimeFinder_ctl: Invalid parameter value: cmd=0");
    TimeFinder_set_logf(nullptr, -1);
}

TEST(Query, writes_44_1_0_at_offsets_0_32_36_and_nothing_else) {
    std::array<unsigned char, 128> record;
    record.fill(0xA5);
    EXPECT_EQ(TimeFinder_query(record.data()), 0);
    std::array<unsigned char, 128> expected;
    expected.fill(0xA5);
    const auto store = [&expected](size_t offset, int32_t value) {
        memcpy(expected.data() + offset, &value, sizeof value);
    };
    store(0, 44);
    store(32, 1);
    store(36, 0);
    EXPECT_EQ(record, expected);
}

TEST(Query, a_missing_record_is_not_written) {
    EXPECT_EQ(TimeFinder_query(nullptr), 0);
}

TEST(SetLocale, both_locales_are_C_until_it_is_called) {
    EXPECT_STREQ(mth_lc_messages, "C");
    EXPECT_STREQ(mth_lc_logging, "C");
}

TEST(SetLocale, null_names_leave_both_buffers_holding_C) {
    TimeFinder_set_locale("de_DE", "fr_FR");
    EXPECT_EQ(TimeFinder_set_locale(nullptr, nullptr), 0);
    EXPECT_STREQ(mth_lc_messages, "C");
    EXPECT_STREQ(mth_lc_logging, "C");
}

TEST(SetLocale, a_name_of_300_characters_is_cut_to_its_first_255) {
    const std::string name(300, 'x');
    TimeFinder_set_locale(name.c_str(), "fr_FR");
    EXPECT_EQ(std::string(mth_lc_messages), std::string(255, 'x'));
    EXPECT_STREQ(mth_lc_logging, "fr_FR");
    TimeFinder_set_locale("de_DE", name.c_str());
    EXPECT_STREQ(mth_lc_messages, "de_DE");
    EXPECT_EQ(std::string(mth_lc_logging), std::string(255, 'x'));
}

TEST(SetLocale, a_null_name_stands_for_C_on_either_side_alone) {
    TimeFinder_set_locale("de_DE", "fr_FR");
    TimeFinder_set_locale(nullptr, "it_IT");
    EXPECT_STREQ(mth_lc_messages, "C");
    EXPECT_STREQ(mth_lc_logging, "it_IT");
    TimeFinder_set_locale("de_DE", nullptr);
    EXPECT_STREQ(mth_lc_messages, "de_DE");
    EXPECT_STREQ(mth_lc_logging, "C");
}

TEST(SetLocale, passing_the_buffers_back_leaves_them_as_they_are) {
    TimeFinder_set_locale("de_DE.UTF-8", "fr_FR.UTF-8");
    TimeFinder_set_locale(mth_lc_messages, mth_lc_logging);
    EXPECT_STREQ(mth_lc_messages, "de_DE.UTF-8");
    EXPECT_STREQ(mth_lc_logging, "fr_FR.UTF-8");
}

// The messages locale is stored first, so the name that it held is gone when its buffer is read.
TEST(SetLocale, passing_the_buffers_back_crossed_leaves_the_logging_locale_in_both) {
    TimeFinder_set_locale("de_DE", "fr_FR");
    TimeFinder_set_locale(mth_lc_logging, mth_lc_messages);
    EXPECT_STREQ(mth_lc_messages, "fr_FR");
    EXPECT_STREQ(mth_lc_logging, "fr_FR");
}

TEST_F(FreshSink, the_version_line_appears_on_the_first_call_only) {
    TimeFinder_set_logf(&test::collect_line, 0);
    TimeFinder_set_logf(&test::collect_line, 0);
    EXPECT_EQ(test::log_lines(), std::vector<std::string>{version_line});
}

TEST_F(FreshSink, a_null_sink_or_a_negative_level_leaves_the_version_line_for_later) {
    TimeFinder_set_logf(nullptr, 5);
    EXPECT_EQ(version_logged, 0);
    TimeFinder_set_logf(&test::collect_line, -1);
    EXPECT_EQ(version_logged, 0);
    EXPECT_TRUE(test::log_lines().empty());
    TimeFinder_set_logf(&test::collect_line, 0);
    EXPECT_EQ(test::log_lines(), std::vector<std::string>{version_line});
}

TEST_F(FreshSink, the_version_line_is_not_tried_again_after_its_allocation_failed) {
    test::fail_allocation(1);
    TimeFinder_set_logf(&test::collect_line, 0);
    test::no_more_faults();
    EXPECT_EQ(version_logged, 1);
    TimeFinder_set_logf(&test::collect_line, 0);
    EXPECT_TRUE(test::log_lines().empty());
}

TEST_F(FreshSink, sink_and_level_are_stored_whatever_they_are) {
    EXPECT_EQ(TimeFinder_set_logf(&test::collect_line, -3), 0);
    EXPECT_EQ(logf_p, &test::collect_line);
    EXPECT_EQ(log_level, -3);
    EXPECT_EQ(TimeFinder_set_logf(nullptr, 7), 0);
    EXPECT_EQ(logf_p, nullptr);
    EXPECT_EQ(log_level, 7);
}

TEST_F(FreshSink, the_parser_gets_the_same_sink_and_level) {
    TimeFinder_set_logf(&test::collect_line, 1);
    EXPECT_EQ(test::log_lines(), (std::vector<std::string>{version_line, parser_banner}));
}

TEST_F(FreshSink, a_null_sink_at_level_5_switches_the_parser_off_too) {
    TimeFinder_set_logf(nullptr, 5);
    EXPECT_EQ(logf_p, nullptr);
    EXPECT_EQ(log_level, 5);
    TimeFinder_set_logf(&test::collect_line, 1);
    // Had the parser kept no sink or its flag spent, its banner would be missing now.
    EXPECT_EQ(test::log_lines().back(), parser_banner);
}

}  // namespace
