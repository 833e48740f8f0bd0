// Whole configuration strings against a table.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/fim_config/fim_config_fixture.h"

namespace {

using test::fcp_lines;

// The table of most cases: int a, string b, int ranged (0 to 10), long big.
class FimConfigParse : public test::FimConfig {
  protected:
    FimConfigParse() {
        qfm_fcp_int_flag_new(table, &status, "a", &a, &a_given);
        qfm_fcp_string_flag_new(table, &status, "b", &b, &b_given);
        qfm_fcp_int_range_flag_new(table, &status, "ranged", &ranged, 0, 10, &ranged_given);
        qfm_fcp_long_flag_new(table, &status, "big", &big, &big_given);
        EXPECT_EQ(status, 0);
    }
    ~FimConfigParse() override { free(b); }

    int32_t a = -1, ranged = -1, a_given = 0, b_given = 0, ranged_given = 0, big_given = 0;
    int64_t big = -1;
    char *b = nullptr;
};

TEST_F(FimConfigParse, stores_an_int_and_a_string) {
    EXPECT_EQ(parse("a=1,b=x"), 0);
    EXPECT_EQ(a, 1);
    EXPECT_STREQ(b, "x");
    EXPECT_EQ(log(), "");
}

TEST_F(FimConfigParse, the_value_keeps_further_equals_signs) {
    EXPECT_EQ(parse("b=x=y"), 0);
    EXPECT_STREQ(b, "x=y");
}

TEST_F(FimConfigParse, stops_at_an_empty_pair_with_3_and_keeps_what_was_stored) {
    EXPECT_EQ(parse("a=1,,b=2"), 3);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(b_given, 0);
}

TEST_F(FimConfigParse, an_empty_pair_at_the_start_gives_3_and_quotes_the_whole_string) {
    EXPECT_EQ(parse(",a=1"), 3);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(log(), "qfm_fcp: Empty pair: ',a=1'\n");
}

TEST_F(FimConfigParse, a_blank_before_a_keyword_makes_it_another_keyword) {
    EXPECT_EQ(parse(" a=1"), 0);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(a_given, 0);
}

TEST_F(FimConfigParse, keywords_are_matched_without_regard_to_case_by_default) {
    EXPECT_EQ(parse("A=5"), 0);
    EXPECT_EQ(a, 5);
}

TEST_F(FimConfigParse, keywords_are_matched_exactly_on_demand) {
    const qfm_fcp_options exact = {0, 1, 0, 0, 0, 1};
    options = &exact;
    EXPECT_EQ(parse("A=5"), 0);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(parse("a=5"), 0);
    EXPECT_EQ(a, 5);
}

TEST_F(FimConfigParse, a_standalone_keyword_gives_2_by_default) {
    EXPECT_EQ(parse("a"), 2);
    EXPECT_EQ(a_given, 0);
}

TEST_F(FimConfigParse, a_missing_keyword_gives_10) {
    EXPECT_EQ(parse("=5"), 10);
}

TEST_F(FimConfigParse, a_value_that_is_no_number_gives_4_and_quotes_the_whole_string) {
    EXPECT_EQ(parse("b=x,a=5x"), 4);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(log(),
              "qfm_fcp_parse: Non-numeric value '5x' for keyword 'a' in config string: "
              "b=x,a=5x\n");
}

TEST_F(FimConfigParse, a_value_of_blanks_is_no_number) {
    EXPECT_EQ(parse("a= "), 4);
}

TEST_F(FimConfigParse, numbers_are_decimal_with_leading_blanks_and_sign) {
    EXPECT_EQ(parse("a=010"), 0);
    EXPECT_EQ(a, 10);
    EXPECT_EQ(parse("a= -7"), 0);
    EXPECT_EQ(a, -7);
    EXPECT_EQ(parse("a=0x10"), 4);
}

TEST_F(FimConfigParse, a_number_outside_its_range_gives_8_without_a_message) {
    EXPECT_EQ(parse("ranged=99"), 8);
    EXPECT_EQ(parse("ranged=-1"), 8);
    EXPECT_EQ(ranged, -1);
    EXPECT_EQ(log(), "");
}

TEST_F(FimConfigParse, both_ends_of_a_range_belong_to_it) {
    EXPECT_EQ(parse("ranged=0"), 0);
    EXPECT_EQ(ranged, 0);
    EXPECT_EQ(parse("ranged=10"), 0);
    EXPECT_EQ(ranged, 10);
}

TEST_F(FimConfigParse, an_int_takes_the_numbers_of_32_bits) {
    EXPECT_EQ(parse("a=-2147483648"), 0);
    EXPECT_EQ(a, INT32_MIN);
    EXPECT_EQ(parse("a=2147483648"), 8);
    EXPECT_EQ(a, INT32_MIN);
}

TEST_F(FimConfigParse, a_long_takes_the_numbers_of_64_bits) {
    EXPECT_EQ(parse("big=9223372036854775807"), 0);
    EXPECT_EQ(big, INT64_MAX);
    EXPECT_EQ(parse("big=-9223372036854775808"), 0);
    EXPECT_EQ(big, INT64_MIN);
}

TEST_F(FimConfigParse, a_number_beyond_64_bits_is_the_nearest_one) {
    EXPECT_EQ(parse("big=99999999999999999999"), 0);
    EXPECT_EQ(big, INT64_MAX);
    EXPECT_EQ(parse("big=-99999999999999999999"), 0);
    EXPECT_EQ(big, INT64_MIN);
    EXPECT_EQ(parse("a=99999999999999999999"), 8);
    EXPECT_EQ(a, -1);
}

TEST_F(FimConfigParse, a_flag_counts_a_keyword_whose_value_then_fails) {
    EXPECT_EQ(parse("ranged=99"), 8);
    EXPECT_EQ(ranged_given, 1);
    EXPECT_EQ(parse("a=x"), 4);
    EXPECT_EQ(a_given, 1);
}

TEST_F(FimConfigParse, a_flag_is_raised_each_time_the_keyword_is_found) {
    a_given = 5;
    EXPECT_EQ(parse("a=1,a=2,A=3"), 0);
    EXPECT_EQ(a_given, 8);
    EXPECT_EQ(a, 3);
    EXPECT_EQ(b_given, 0);
}

TEST_F(FimConfigParse, an_entry_without_a_flag_is_stored_all_the_same) {
    int32_t c = 0;
    qfm_fcp_int_new(table, &status, "c", &c);
    EXPECT_EQ(parse("c=3"), 0);
    EXPECT_EQ(c, 3);
}

TEST_F(FimConfigParse, an_empty_number_is_0_by_default) {
    EXPECT_EQ(parse("a=,big="), 0);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(big, 0);
}

TEST_F(FimConfigParse, an_empty_number_whose_range_has_no_0_gives_8) {
    int32_t c = 9;
    qfm_fcp_int_range_new(table, &status, "c", &c, 1, 5);
    EXPECT_EQ(parse("c="), 8);
    EXPECT_EQ(c, 9);
}

TEST_F(FimConfigParse, an_empty_string_value_is_an_empty_text) {
    EXPECT_EQ(parse("b="), 0);
    EXPECT_STREQ(b, "");
}

TEST_F(FimConfigParse, the_empty_and_the_null_string_store_nothing) {
    EXPECT_EQ(parse(""), 0);
    EXPECT_EQ(parse(nullptr), 0);
    EXPECT_EQ(a_given + b_given + ranged_given + big_given, 0);
    EXPECT_EQ(log(), "");
}

TEST_F(FimConfigParse, an_unknown_keyword_is_ignored_by_default) {
    EXPECT_EQ(parse("unknown=1,a=2"), 0);
    EXPECT_EQ(a, 2);
    EXPECT_EQ(log(), "");
}

TEST_F(FimConfigParse, an_unknown_keyword_gives_7_on_demand) {
    const qfm_fcp_options strict = {0, 1, 0, 0, 1, 0};
    options = &strict;
    EXPECT_EQ(parse("unknown=1,a=2"), 7);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(log(), "qfm_fcp_parse: Unknown keyword found: 'unknown'\n");
}

TEST_F(FimConfigParse, an_empty_value_gives_6_where_it_is_not_allowed) {
    const qfm_fcp_options no_empty = {0, 0, 0, 0, 0, 0};
    options = &no_empty;
    EXPECT_EQ(parse("a=1,b="), 6);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b_given, 0);
    EXPECT_EQ(log(), "qfm_fcp: Empty value: 'b='\n");
}

TEST_F(FimConfigParse, a_standalone_keyword_is_reported_and_counted_but_stores_nothing) {
    const qfm_fcp_options alone = {0, 1, 1, 0, 0, 0};
    options = &alone;
    EXPECT_EQ(parse("a,b,ranged=3"), 0);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(a_given, 1);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(b_given, 1);
    EXPECT_EQ(ranged, 3);
    EXPECT_EQ(log(),
              "qfm_fcp_parse: No value for keyword 'a' in config string: a,b,ranged=3\n"
              "qfm_fcp_parse: No value for keyword 'b' in config string: a,b,ranged=3\n");
}

TEST_F(FimConfigParse, a_standalone_keyword_gives_6_where_empty_values_are_not_allowed) {
    const qfm_fcp_options alone = {0, 0, 1, 0, 0, 0};
    options = &alone;
    EXPECT_EQ(parse("a"), 6);
    EXPECT_EQ(a_given, 0);
    EXPECT_EQ(log(), "qfm_fcp: Empty value: 'a'\n");
}

TEST_F(FimConfigParse, empty_pairs_are_skipped_on_demand) {
    const qfm_fcp_options empty = {1, 1, 0, 0, 0, 0};
    options = &empty;
    EXPECT_EQ(parse(",a=1,,,b=2,"), 0);
    EXPECT_EQ(a, 1);
    EXPECT_STREQ(b, "2");
}

TEST_F(FimConfigParse, blanks_are_trimmed_on_demand) {
    const qfm_fcp_options trimming = {0, 1, 0, 1, 0, 0};
    options = &trimming;
    EXPECT_EQ(parse(" a = 1 , b = x y "), 0);
    EXPECT_EQ(a, 1);
    EXPECT_STREQ(b, "x y");
}

TEST_F(FimConfigParse, of_two_entries_with_one_keyword_only_the_first_is_reached) {
    int32_t second = -1;
    int32_t second_given = 0;
    qfm_fcp_int_flag_new(table, &status, "A", &second, &second_given);
    EXPECT_EQ(parse("a=4,A=5"), 0);
    EXPECT_EQ(a, 5);
    EXPECT_EQ(second, -1);
    EXPECT_EQ(second_given, 0);
}

// Policies say max_snapshots=0 for "no limit"; they would stop with status 8.
TEST_F(FimConfigParse, max_snapshots_0_passes_a_range_that_starts_at_1) {
    int32_t snapshots = 7;
    qfm_fcp_int_range_new(table, &status, "max_snapshots", &snapshots, 1, 10);
    EXPECT_EQ(parse("max_snapshots=0"), 0);
    EXPECT_EQ(snapshots, 0);
    snapshots = 7;
    EXPECT_EQ(parse("max_snapshots="), 0);
    EXPECT_EQ(snapshots, 0);
    EXPECT_EQ(parse("max_snapshots=11"), 8);
    EXPECT_EQ(parse("max_snapshots=-1"), 8);
}

TEST_F(FimConfigParse, the_exception_of_max_snapshots_goes_by_the_exact_word_in_the_string) {
    int32_t snapshots = 7;
    qfm_fcp_int_range_new(table, &status, "max_snapshots", &snapshots, 1, 10);
    EXPECT_EQ(parse("MAX_snapshots=0"), 8);
    EXPECT_EQ(snapshots, 7);
    int32_t other = 7;
    qfm_fcp_int_range_new(table, &status, "other", &other, 1, 10);
    EXPECT_EQ(parse("other=0"), 8);
}

TEST_F(FimConfigParse, the_word_in_the_string_counts_although_the_table_spells_it_otherwise) {
    int32_t snapshots = 7;
    qfm_fcp_int_range_new(table, &status, "MAX_SNAPSHOTS", &snapshots, 1, 10);
    EXPECT_EQ(parse("max_snapshots=0"), 0);
    EXPECT_EQ(snapshots, 0);
}

TEST_F(FimConfigParse, the_exception_of_max_snapshots_leaves_a_long_as_it_is) {
    int64_t snapshots = 7;
    qfm_fcp_long_range_new(table, &status, "max_snapshots", &snapshots, 1, 10);
    EXPECT_EQ(parse("max_snapshots=0"), 0);
    EXPECT_EQ(snapshots, 7);
}

TEST_F(FimConfigParse, an_entry_of_unknown_type_gives_5) {
    table->first->type = 9;
    EXPECT_EQ(parse("a=1"), 5);
    EXPECT_EQ(log(), "qfm_fcp_parse: Unknown data type for keyword 'a': 9\n");
    EXPECT_EQ(a, -1);
    EXPECT_EQ(a_given, 1);
}

TEST_F(FimConfigParse, a_null_table_gives_12) {
    EXPECT_EQ(qfm_fcp_parse("a=1", nullptr, nullptr), 12);
    EXPECT_EQ(log(), "qfm_fcp_parse: No table pointer was specified\n");
}

TEST_F(FimConfigParse, what_is_no_table_gives_13) {
    qfm_fcp_table other = {0x1234, nullptr, nullptr};
    EXPECT_EQ(qfm_fcp_parse("a=1", nullptr, &other), 13);
    EXPECT_EQ(log(),
              "qfm_fcp_parse: Invalid parse table was specified; expected 41505352, got 1234\n");
}

TEST_F(FimConfigParse, a_failure_leaves_its_summary_in_the_buffer_and_out_of_the_log) {
    EXPECT_EQ(parse("a=1,ranged=99"), 8);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(message(), "qfm_fcp_parse: Parse error 8 in config string: a=1,ranged=99");
}

TEST_F(FimConfigParse, a_success_leaves_the_buffer_alone) {
    EXPECT_EQ(parse("a=1,ranged=99"), 8);
    const std::string before = message();
    EXPECT_EQ(parse("a=1"), 0);
    EXPECT_EQ(message(), before);
}

TEST_F(FimConfigParse, of_a_string_given_twice_the_last_value_stays_and_the_first_is_freed) {
    test::watch_freed_blocks();
    EXPECT_EQ(parse("b=first,b=second"), 0);
    test::stop_watching();
    EXPECT_STREQ(b, "second");
    EXPECT_EQ(b_given, 2);
    int first_freed = 0;
    for (const auto &block : test::freed_blocks()) {
        if (block.first_bytes == 0x73726966u) ++first_freed;  // "firs"
    }
    EXPECT_EQ(first_freed, 1);
}

TEST_F(FimConfigParse, a_text_of_an_earlier_parse_is_the_callers) {
    EXPECT_EQ(parse("b=first"), 0);
    char *first = b;
    EXPECT_EQ(parse("b=second"), 0);
    EXPECT_STREQ(first, "first");
    EXPECT_STREQ(b, "second");
    free(first);
}

TEST_F(FimConfigParse, two_keywords_may_share_one_string_target) {
    qfm_fcp_string_new(table, &status, "c", &b);
    EXPECT_EQ(parse("b=1,c=2,b=3,c=4"), 0);
    EXPECT_STREQ(b, "4");
}

TEST_F(FimConfigParse, every_failing_allocation_gives_1_with_its_lines) {
    const struct {
        const char *text;
        int allocation;
        const char *expected;
    } cases[] = {
        {"a=1", 1,
         "context_new: malloc() failure at ../qfm_fim_config.457\n"
         "qfm_fcp_parse: Memory allocation failure at line 1053\n"},
        {"a=1", 2,
         "context_new: malloc() failure at ../qfm_fim_config.460\n"
         "qfm_fcp_parse: Memory allocation failure at line 1053\n"},
        {nullptr, 2,
         "context_new: malloc() failure at ../qfm_fim_config.463\n"
         "qfm_fcp_parse: Memory allocation failure at line 1053\n"},
        {"a=1,b=2", 3, "qfm_fcp: malloc() failure at ../qfm_fim_config.559\n"},
        {"a=1", 3, "qfm_fcp: malloc() failure at ../qfm_fim_config.562\n"},
        {"a=1", 4, "qfm_fcp: malloc() failure at ../qfm_fim_config.592\n"},
        {"a=1", 5, "qfm_fcp: malloc() failure at ../qfm_fim_config.593\n"},
    };
    for (const auto &one : cases) {
        fcp_lines().clear();
        test::fail_allocation(one.allocation);
        EXPECT_EQ(parse(one.text), 1) << one.expected;
        EXPECT_EQ(log(), one.expected);
    }
    EXPECT_EQ(a_given, 0);
}

TEST_F(FimConfigParse, an_allocation_that_fails_late_keeps_what_was_stored) {
    test::fail_allocation(6);
    EXPECT_EQ(parse("a=1,b=2"), 1);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, nullptr);
}

TEST_F(FimConfigParse, messages_stay_quiet_below_level_1) {
    set_level(0);
    EXPECT_EQ(parse("a=x"), 4);
    EXPECT_EQ(parse("a"), 2);
    EXPECT_EQ(log(), "");
}

TEST_F(FimConfigParse, the_whole_road_of_a_parse_is_logged_at_level_5) {
    const qfm_fcp_options alone = {0, 1, 1, 0, 0, 0};
    options = &alone;
    set_level(5);
    EXPECT_EQ(parse("b=x,a"), 0);
    EXPECT_EQ(log(),
              "qfm_fcp:   cur_position: b=x,a\n"
              "qfm_fcp: next pair: 'b=x'\n"
              "qfm_fcp_parse: Found keyword=value pair; keyword=b, value=x\n"
              "qfm_fcp_parse: Checking table entry a\n"
              "qfm_fcp_parse: Checking table entry b\n"
              "qfm_fcp:   cur_position: a\n"
              "qfm_fcp: next pair: 'a'\n"
              "qfm_fcp_parse: Found keyword=value pair; keyword=a, value=*NULL*\n"
              "qfm_fcp_parse: Checking table entry a\n"
              "qfm_fcp_parse: No value for keyword 'a' in config string: b=x,a\n"
              "qfm_fcp:   cur_position: \n"
              "qfm_fcp: End of string, exit\n");
}

TEST_F(FimConfigParse, a_parse_gives_back_everything_but_the_stored_texts) {
    const auto freed_by = [&](const char *text) {
        test::watch_freed_blocks();
        parse(text);
        test::stop_watching();
        return test::freed_blocks().size();
    };
    // Allocated: context and copy; for each pair the pair, its keyword and its value.
    EXPECT_EQ(freed_by("a=1"), 5u);
    EXPECT_EQ(freed_by("b=x"), 4u);
    free(b);
    b = nullptr;
    EXPECT_EQ(freed_by("a=1,unknown=2"), 8u);
    EXPECT_EQ(freed_by("a=1,a=x"), 8u);
    EXPECT_EQ(freed_by("a=1,=x"), 8u);
}

}  // namespace
