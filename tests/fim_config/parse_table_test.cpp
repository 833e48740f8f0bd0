// Keyword tables: making, deleting, adding keywords, the module's own log.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "tests/fim_config/fim_config_fixture.h"

namespace {

using test::fcp_lines;
using test::FimConfig;

constexpr char banner[] = "pQfMS FIM config string parser $Revision$";

// Each case is a process of its own, so the banner has not been written yet.
TEST(FimConfigBanner, is_logged_once_at_level_1) {
    qfm_fcp_set_logf(&test::collect_fcp_line, 1);
    EXPECT_EQ(fcp_lines(), std::vector<std::string>{banner});
    qfm_fcp_set_logf(&test::collect_fcp_line, 1);
    qfm_fcp_set_logf(&test::collect_fcp_line, 5);
    EXPECT_EQ(fcp_lines().size(), 1u);
    qfm_fcp_set_logf(nullptr, -1);
}

TEST(FimConfigBanner, is_not_logged_at_level_0_and_waits_for_level_1) {
    qfm_fcp_set_logf(&test::collect_fcp_line, 0);
    EXPECT_TRUE(fcp_lines().empty());
    qfm_fcp_set_logf(&test::collect_fcp_line, 2);
    EXPECT_EQ(fcp_lines(), std::vector<std::string>{banner});
    qfm_fcp_set_logf(nullptr, -1);
}

TEST(FimConfigBanner, waits_for_a_sink) {
    qfm_fcp_set_logf(nullptr, 5);
    qfm_fcp_set_logf(&test::collect_fcp_line, 1);
    EXPECT_EQ(fcp_lines(), std::vector<std::string>{banner});
    qfm_fcp_set_logf(nullptr, -1);
}

TEST_F(FimConfig, a_new_table_carries_the_magic_and_no_entries) {
    EXPECT_EQ(status, 0);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(memcmp(table, "RSPA", 4), 0);
    EXPECT_EQ(table->first, nullptr);
    EXPECT_EQ(table->last, nullptr);
}

TEST_F(FimConfig, a_new_table_resets_the_status) {
    int32_t other_status = 11;
    qfm_fcp_table *other = qfm_fcp_table_new(&other_status);
    EXPECT_EQ(other_status, 0);
    qfm_fcp_table_delete(other);
}

TEST_F(FimConfig, a_table_without_memory_gives_status_1_and_the_line_694) {
    int32_t other_status = 0;
    test::fail_allocation(1);
    EXPECT_EQ(qfm_fcp_table_new(&other_status), nullptr);
    EXPECT_EQ(other_status, 1);
    EXPECT_EQ(log(), "qfm_fcp_table_new: malloc() failure at ../qfm_fim_config.694\n");
}

TEST_F(FimConfig, deleting_a_null_table_gives_12) {
    EXPECT_EQ(qfm_fcp_table_delete(nullptr), 12);
    EXPECT_EQ(log(), "qfm_fcp_table_delete: No table pointer was specified\n");
}

TEST_F(FimConfig, deleting_what_is_no_table_gives_13_and_shows_both_magics) {
    qfm_fcp_table other = {0xabc, nullptr, nullptr};
    EXPECT_EQ(qfm_fcp_table_delete(&other), 13);
    EXPECT_EQ(log(),
              "qfm_fcp_table_delete: Invalid parse table was specified; expected 41505352, got "
              "abc\n");
    EXPECT_EQ(other.magic, 0xabcu);
}

TEST_F(FimConfig, deleting_an_empty_table_frees_just_the_table) {
    test::watch_freed_blocks();
    EXPECT_EQ(qfm_fcp_table_delete(table), 0);
    test::stop_watching();
    ASSERT_EQ(test::freed_blocks().size(), 1u);
    EXPECT_EQ(test::freed_blocks()[0].block, table);
    table = nullptr;
}

TEST_F(FimConfig, deleting_a_table_frees_every_entry_with_its_keyword) {
    int32_t number = 0;
    const qfm_fcp_entry *a = qfm_fcp_int_new(table, &status, "a", &number);
    const qfm_fcp_entry *b = qfm_fcp_int_new(table, &status, "b", &number);
    const std::vector<const void *> expected = {a->keyword, a, b->keyword, b, table};
    test::watch_freed_blocks();
    EXPECT_EQ(qfm_fcp_table_delete(table), 0);
    test::stop_watching();
    std::vector<const void *> freed;
    for (const auto &block : test::freed_blocks()) freed.push_back(block.block);
    EXPECT_EQ(freed, expected);
    table = nullptr;
}

// Whoever still holds the pointer must be refused, so the magic has to be gone in memory, not only
// in the eyes of the compiler.
TEST_F(FimConfig, the_magic_is_cleared_before_the_table_is_freed) {
    test::watch_freed_blocks();
    qfm_fcp_table_delete(table);
    test::stop_watching();
    ASSERT_EQ(test::freed_blocks().back().block, table);
    EXPECT_EQ(test::freed_blocks().back().first_bytes, 0u);
    table = nullptr;
}

TEST_F(FimConfig, a_record_with_a_cleared_magic_is_refused_by_every_call) {
    qfm_fcp_table deleted = {0, nullptr, nullptr};
    int32_t number = 0;
    EXPECT_EQ(qfm_fcp_int_new(&deleted, &status, "a", &number), nullptr);
    EXPECT_EQ(status, 13);
    EXPECT_EQ(qfm_fcp_parse("a=1", nullptr, &deleted), 13);
    EXPECT_EQ(qfm_fcp_table_delete(&deleted), 13);
}

TEST_F(FimConfig, entries_are_appended_in_the_order_of_creation) {
    int32_t number = 0;
    qfm_fcp_entry *a = qfm_fcp_int_new(table, &status, "a", &number);
    EXPECT_EQ(table->first, a);
    EXPECT_EQ(table->last, a);
    qfm_fcp_entry *b = qfm_fcp_int_new(table, &status, "b", &number);
    EXPECT_EQ(table->first, a);
    EXPECT_EQ(a->next, b);
    EXPECT_EQ(table->last, b);
    EXPECT_EQ(b->next, nullptr);
}

TEST_F(FimConfig, an_entry_keeps_a_copy_of_its_keyword) {
    char keyword[] = "first";
    int32_t number = 0;
    const qfm_fcp_entry *entry = qfm_fcp_int_new(table, &status, keyword, &number);
    strncpy(keyword, "other", sizeof keyword);
    EXPECT_STREQ(entry->keyword, "first");
}

void expect_entry(const qfm_fcp_entry *entry, int32_t type, const void *target, int64_t min,
                  int64_t max, const int32_t *flag) {
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->type, type);
    EXPECT_EQ(entry->target, target);
    EXPECT_EQ(entry->min, min);
    EXPECT_EQ(entry->max, max);
    EXPECT_EQ(entry->flag, flag);
    EXPECT_STREQ(entry->keyword, "k");
}

TEST_F(FimConfig, string_entries_have_type_1_and_no_range) {
    char *text = nullptr;
    int32_t flag = 0;
    expect_entry(qfm_fcp_string_new(table, &status, "k", &text), 1, &text, 0, 0, nullptr);
    expect_entry(qfm_fcp_string_flag_new(table, &status, "k", &text, &flag), 1, &text, 0, 0, &flag);
}

TEST_F(FimConfig, int_entries_have_type_2_and_the_range_of_32_bits) {
    int32_t number = 0;
    int32_t flag = 0;
    expect_entry(qfm_fcp_int_new(table, &status, "k", &number), 2, &number, INT32_MIN, INT32_MAX,
                 nullptr);
    expect_entry(qfm_fcp_int_flag_new(table, &status, "k", &number, &flag), 2, &number, INT32_MIN,
                 INT32_MAX, &flag);
}

TEST_F(FimConfig, int_range_entries_have_type_2_and_their_range) {
    int32_t number = 0;
    int32_t flag = 0;
    expect_entry(qfm_fcp_int_range_new(table, &status, "k", &number, -3, 4), 2, &number, -3, 4,
                 nullptr);
    expect_entry(qfm_fcp_int_range_flag_new(table, &status, "k", &number, -3, 4, &flag), 2, &number,
                 -3, 4, &flag);
}

TEST_F(FimConfig, long_entries_have_type_3_and_the_range_of_64_bits) {
    int64_t number = 0;
    int32_t flag = 0;
    expect_entry(qfm_fcp_long_new(table, &status, "k", &number), 3, &number, INT64_MIN, INT64_MAX,
                 nullptr);
    expect_entry(qfm_fcp_long_flag_new(table, &status, "k", &number, &flag), 3, &number, INT64_MIN,
                 INT64_MAX, &flag);
}

TEST_F(FimConfig, long_range_entries_have_type_3_and_their_range) {
    int64_t number = 0;
    int32_t flag = 0;
    expect_entry(qfm_fcp_long_range_new(table, &status, "k", &number, -5000000000, 6000000000), 3,
                 &number, -5000000000, 6000000000, nullptr);
    expect_entry(
        qfm_fcp_long_range_flag_new(table, &status, "k", &number, -5000000000, 6000000000, &flag),
        3, &number, -5000000000, 6000000000, &flag);
}

TEST_F(FimConfig, a_minimum_above_the_maximum_gives_11) {
    int32_t number = 0;
    EXPECT_EQ(qfm_fcp_int_range_new(table, &status, "k", &number, 5, 4), nullptr);
    EXPECT_EQ(status, 11);
    EXPECT_EQ(log(), "qfm_fcp_entry_new: Minimum (5) greater than maximum (4) for keyword k\n");
    EXPECT_EQ(table->first, nullptr);
}

TEST_F(FimConfig, a_minimum_equal_to_the_maximum_is_accepted) {
    int32_t number = 0;
    EXPECT_NE(qfm_fcp_int_range_new(table, &status, "k", &number, 4, 4), nullptr);
    EXPECT_EQ(status, 0);
}

TEST_F(FimConfig, while_the_status_is_not_0_constructors_do_nothing_and_say_nothing) {
    int32_t number = 0;
    qfm_fcp_int_range_new(table, &status, "k", &number, 5, 4);
    set_level(5);
    EXPECT_EQ(qfm_fcp_int_new(table, &status, "good", &number), nullptr);
    EXPECT_EQ(qfm_fcp_int_new(nullptr, &status, nullptr, &number), nullptr);
    EXPECT_EQ(status, 11);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(table->first, nullptr);
}

TEST_F(FimConfig, a_null_keyword_gives_10) {
    int32_t number = 0;
    EXPECT_EQ(qfm_fcp_int_new(table, &status, nullptr, &number), nullptr);
    EXPECT_EQ(status, 10);
    EXPECT_EQ(log(), "qfm_fcp_entry_new: No keyword was specified for parse table entry\n");
}

TEST_F(FimConfig, an_entry_for_a_null_table_gives_12) {
    int32_t number = 0;
    EXPECT_EQ(qfm_fcp_int_new(nullptr, &status, "k", &number), nullptr);
    EXPECT_EQ(status, 12);
    EXPECT_EQ(log(), "qfm_fcp_entry_new: No table pointer was specified for keyword k\n");
}

TEST_F(FimConfig, an_entry_for_what_is_no_table_gives_13) {
    qfm_fcp_table other = {0x52535041, nullptr, nullptr};
    int32_t number = 0;
    EXPECT_EQ(qfm_fcp_int_new(&other, &status, "k", &number), nullptr);
    EXPECT_EQ(status, 13);
    EXPECT_EQ(log(),
              "qfm_fcp_entry_new: Invalid parse table was specified for keyword k; expected "
              "41505352, got 52535041\n");
}

TEST_F(FimConfig, an_unknown_type_gives_9) {
    int32_t number = 0;
    for (const int32_t type : {0, 4, -1}) {
        status = 0;
        fcp_lines().clear();
        EXPECT_EQ(qfm_fcp_entry_new(table, &status, type, "k", &number, 0, 1, nullptr), nullptr);
        EXPECT_EQ(status, 9);
        EXPECT_EQ(log(), "qfm_fcp_entry_new: Unsupported data type (" + std::to_string(type) +
                             ") for keyword k\n");
    }
}

TEST_F(FimConfig, of_several_mistakes_the_first_of_the_order_counts) {
    qfm_fcp_table other = {1, nullptr, nullptr};
    const auto refusal = [&](qfm_fcp_table *where, int32_t type, const char *keyword) {
        int32_t result = 0;
        qfm_fcp_entry_new(where, &result, type, keyword, nullptr, 2, 1, nullptr);
        return result;
    };
    EXPECT_EQ(refusal(nullptr, 7, nullptr), 10);
    EXPECT_EQ(refusal(nullptr, 7, "k"), 12);
    EXPECT_EQ(refusal(&other, 7, "k"), 13);
    EXPECT_EQ(refusal(table, 7, "k"), 9);
    EXPECT_EQ(refusal(table, 1, "k"), 11);
}

// Callers look at the status once after all their entries; with a status they would stop where they
// have always gone on.
TEST_F(FimConfig, an_entry_without_memory_leaves_the_status_at_0) {
    int32_t number = 0;
    test::fail_allocation(1);
    EXPECT_EQ(qfm_fcp_int_new(table, &status, "k", &number), nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(log(), "qfm_fcp_entry_new: malloc() failure at ../qfm_fim_config.817\n");
    EXPECT_EQ(table->first, nullptr);
}

TEST_F(FimConfig, a_keyword_copy_without_memory_leaves_the_status_at_0_and_frees_the_entry) {
    int32_t number = 0;
    test::fail_allocation(2);
    test::watch_freed_blocks();
    EXPECT_EQ(qfm_fcp_int_new(table, &status, "k", &number), nullptr);
    test::stop_watching();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(log(), "qfm_fcp_entry_new: malloc() failure at ../qfm_fim_config.818\n");
    EXPECT_EQ(table->first, nullptr);
    EXPECT_EQ(test::freed_blocks().size(), 1u);
}

TEST_F(FimConfig, adding_an_entry_is_a_detail_of_level_5) {
    int32_t number = 0;
    set_level(4);
    qfm_fcp_int_new(table, &status, "k", &number);
    EXPECT_EQ(log(), "");
    set_level(5);
    qfm_fcp_int_new(table, &status, "k", &number);
    EXPECT_EQ(log(), "qfm_fcp_entry_new: Adding entry for keyword k\n");
    fcp_lines().clear();
    qfm_fcp_int_new(table, &status, nullptr, &number);
    EXPECT_EQ(log(),
              "qfm_fcp_entry_new: Adding entry for keyword *NULL*\n"
              "qfm_fcp_entry_new: No keyword was specified for parse table entry\n");
}

TEST_F(FimConfig, below_level_1_messages_are_built_and_not_logged) {
    set_level(0);
    EXPECT_EQ(qfm_fcp_table_delete(nullptr), 12);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(message(), "qfm_fcp_table_delete: No table pointer was specified");
}

TEST_F(FimConfig, a_message_is_cut_to_2047_characters) {
    const std::string keyword(3000, 'k');
    int32_t number = 0;
    qfm_fcp_int_range_new(table, &status, keyword.c_str(), &number, 1, 0);
    EXPECT_EQ(fcp_lines().at(0).size(), 2047u);
}

}  // namespace
