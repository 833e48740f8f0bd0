// What decides when a pair is wrong in two ways, and options that meet.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/fim_config/fim_config_fixture.h"

namespace {

// A table with the int a and the string b.
class CombinedOptions : public test::FimConfig {
  protected:
    CombinedOptions() {
        qfm_fcp_int_flag_new(table, &status, "a", &a, &a_given);
        qfm_fcp_string_flag_new(table, &status, "b", &b, &b_given);
        EXPECT_EQ(status, 0);
    }
    ~CombinedOptions() override { free(b); }

    int32_t parse_with(const qfm_fcp_options &wanted, const char *text) {
        options = &wanted;
        return parse(text);
    }

    int32_t a = -1, a_given = 0, b_given = 0;
    char *b = nullptr;
};

TEST_F(CombinedOptions, a_standalone_keyword_is_that_before_it_is_one_without_a_value) {
    EXPECT_EQ(parse_with({0, 0, 0, 0, 0, 0}, "a"), 2);
    EXPECT_EQ(log(), "qfm_fcp: Standalone keyword: 'a'\n");
}

TEST_F(CombinedOptions, a_missing_keyword_is_that_before_its_value_is_looked_at) {
    EXPECT_EQ(parse_with({0, 0, 0, 0, 0, 0}, "="), 10);
    EXPECT_EQ(log(), "qfm_fcp: Missing keyword: '='\n");
    test::fcp_lines().clear();
    EXPECT_EQ(parse_with({0, 0, 0, 0, 0, 0}, "=,a=1"), 10);
    EXPECT_EQ(log(), "qfm_fcp: Missing keyword: '=,a=1'\n");
    EXPECT_EQ(a, -1);
}

TEST_F(CombinedOptions, blanks_are_trimmed_around_a_standalone_keyword_too) {
    EXPECT_EQ(parse_with({0, 1, 1, 1, 0, 0}, " a , b=1"), 0);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(a_given, 1);
    EXPECT_STREQ(b, "1");
    EXPECT_EQ(log(), "qfm_fcp_parse: No value for keyword 'a' in config string:  a , b=1\n");
}

TEST_F(CombinedOptions, a_keyword_that_differs_in_case_alone_is_unknown_where_both_count) {
    EXPECT_EQ(parse_with({0, 1, 0, 0, 1, 1}, "A=5"), 7);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(log(), "qfm_fcp_parse: Unknown keyword found: 'A'\n");
}

TEST_F(CombinedOptions, every_failure_of_a_pair_leaves_the_parses_summary_in_the_buffer) {
    EXPECT_EQ(parse("a=1,,b"), 3);
    EXPECT_EQ(message(), "qfm_fcp_parse: Parse error 3 in config string: a=1,,b");
    test::fail_allocation(3);
    EXPECT_EQ(parse("a=1,b=2"), 1);
    EXPECT_EQ(message(), "qfm_fcp_parse: Parse error 1 in config string: a=1,b=2");
}

TEST_F(CombinedOptions, a_parse_that_did_not_begin_leaves_its_own_message_and_no_summary) {
    EXPECT_EQ(qfm_fcp_parse("a=1", nullptr, nullptr), 12);
    EXPECT_EQ(message(), "qfm_fcp_parse: No table pointer was specified");
    qfm_fcp_table other = {0x1234, nullptr, nullptr};
    EXPECT_EQ(qfm_fcp_parse("a=1", nullptr, &other), 13);
    EXPECT_EQ(message(),
              "qfm_fcp_parse: Invalid parse table was specified; expected 41505352, got 1234");
    test::fail_allocation(1);
    EXPECT_EQ(parse("a=1"), 1);
    EXPECT_EQ(message(), "qfm_fcp_parse: Memory allocation failure at line 1053");
}

}  // namespace
