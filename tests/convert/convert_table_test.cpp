// The conversion table itself: opening, registering, growing, clearing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/convert/convert_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

using test::Convert;

TEST(ConvertOpen, makes_an_empty_table_with_room_for_1024_entries) {
    convert_table *table = nullptr;
    EXPECT_EQ(convert_open(&table), 0u);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->capacity, 1024);
    EXPECT_EQ(table->count, 0);
    EXPECT_STREQ(convert_errmsg(table), "");
    EXPECT_EQ(convert_close(table), 0u);
}

TEST(ConvertOpen, without_memory_for_the_table_gives_1_and_leaves_the_output_alone) {
    convert_table *const before = reinterpret_cast<convert_table *>(0x10);
    convert_table *table = before;
    test::fail_allocation(1);
    EXPECT_EQ(convert_open(&table), 1u);
    EXPECT_EQ(table, before);
}

TEST(ConvertOpen, without_memory_for_the_entries_gives_2_and_leaves_the_output_alone) {
    convert_table *const before = reinterpret_cast<convert_table *>(0x10);
    convert_table *table = before;
    test::fail_allocation(2);
    EXPECT_EQ(convert_open(&table), 2u);
    EXPECT_EQ(table, before);
}

TEST(ConvertClose, accepts_a_null_table) {
    EXPECT_EQ(convert_close(nullptr), 0u);
}

TEST_F(Convert, close_leaves_the_variables_as_they_are) {
    add_text("a", text);
    add_number("n", &number);
    strncpy(text, "kept", sizeof text);
    number = 3;
    convert_close(table);
    table = nullptr;
    EXPECT_STREQ(text, "kept");
    EXPECT_EQ(number, 3);
}

TEST_F(Convert, an_entry_stores_what_it_was_registered_with) {
    ASSERT_EQ(convert_add_ent(table, "key", text, sizeof text, CTYPE_FUNC, &test::quote), 0u);
    ASSERT_EQ(table->count, 1);
    EXPECT_STREQ(table->entries[0].name, "key");
    EXPECT_EQ(table->entries[0].value, text);
    EXPECT_EQ(table->entries[0].value_size, sizeof text);
    EXPECT_EQ(table->entries[0].type, CTYPE_FUNC);
    EXPECT_EQ(table->entries[0].conv_func, &test::quote);
}

TEST_F(Convert, keeps_the_pointer_to_the_key_and_no_copy) {
    char key[] = "first";
    add_text(key, text);
    strncpy(key, "other", sizeof key);
    strncpy(text, "v", sizeof text);
    EXPECT_EQ(external(), "other=v\n");
}

TEST_F(Convert, a_text_of_the_size_of_a_pointer_is_refused_but_stays_registered) {
    char eight[8] = "seven..";
    EXPECT_EQ(convert_add_ent(table, "p", eight, sizeof eight, CTYPE_STR, nullptr), 1u);
    EXPECT_EQ(message(),
              "convert_add_ent: CTYPE_STR and value_size == sizeof(void *), probable coding error");
    EXPECT_EQ(table->count, 1);
    EXPECT_EQ(external(), "p=seven..\n");
}

TEST_F(Convert, an_integer_of_the_size_of_a_pointer_is_accepted) {
    EXPECT_EQ(convert_add_ent(table, "n", &number, 8, CTYPE_INT, nullptr), 0u);
    EXPECT_EQ(message(), "");
}

TEST_F(Convert, a_type_above_2_is_refused_but_stays_registered) {
    EXPECT_EQ(convert_add_ent(table, "x", text, sizeof text, 3, nullptr), 1u);
    EXPECT_EQ(message(), "convert_add_ent: Invalid value for type: 3");
    EXPECT_EQ(table->count, 1);
    EXPECT_EQ(table->entries[0].type, 3);
}

TEST_F(Convert, a_negative_type_is_refused_but_stays_registered) {
    EXPECT_EQ(convert_add_ent(table, "x", text, sizeof text, -1, nullptr), 1u);
    EXPECT_EQ(message(), "convert_add_ent: Invalid value for type: -1");
    EXPECT_EQ(table->count, 1);
}

TEST_F(Convert, an_entry_of_no_type_puts_no_line_and_takes_no_value) {
    strncpy(text, "before", sizeof text);
    add_number("m", &number);
    convert_add_ent(table, "x", text, sizeof text, 7, nullptr);
    add_number("n", &number);
    EXPECT_EQ(external(), "m=0\nn=0\n");
    EXPECT_EQ(internal("x=after"), 0u);
    EXPECT_STREQ(text, "before");
}

TEST_F(Convert, reinit_clears_the_first_byte_of_an_entry_of_no_type_too) {
    strncpy(text, "xyz", sizeof text);
    convert_add_ent(table, "x", text, sizeof text, 7, nullptr);
    EXPECT_EQ(convert_reinit(table), 0u);
    EXPECT_EQ(std::string(text, 3), std::string("\0yz", 3));
}

TEST_F(Convert, the_1024th_entry_needs_no_growth_and_the_1025th_raises_the_capacity_to_2048) {
    add_numbers(1024);
    EXPECT_EQ(table->capacity, 1024);
    EXPECT_EQ(convert_add_ent(table, "one more", &number, 8, CTYPE_INT, nullptr), 0u);
    EXPECT_EQ(table->capacity, 2048);
    EXPECT_EQ(table->count, 1025);
    number = 9;
    EXPECT_TRUE(external().ends_with("n=9\none more=9\n"));
}

TEST_F(Convert, a_failed_growth_keeps_the_count_and_the_raised_capacity) {
    add_numbers(1024);
    test::fail_allocation(1);
    EXPECT_EQ(convert_add_ent(table, "x", &number, 8, CTYPE_INT, nullptr), 1u);
    EXPECT_EQ(message(), "convert_add_ent: Memory allocation failure at line 123");
    EXPECT_EQ(table->count, 1024);
    EXPECT_EQ(table->capacity, 2048);
}

TEST_F(Convert, after_a_failed_growth_the_next_registration_grows_before_it_stores) {
    add_numbers(1024);
    test::fail_allocation(1);
    convert_add_ent(table, "x", &number, 8, CTYPE_INT, nullptr);
    test::no_more_faults();
    EXPECT_EQ(convert_add_ent(table, "y", &number, 8, CTYPE_INT, nullptr), 0u);
    EXPECT_EQ(test::allocations_seen(), 1);
    EXPECT_EQ(table->count, 1025);
    EXPECT_EQ(table->capacity, 2048);
    EXPECT_STREQ(table->entries[1024].name, "y");
    add_numbers(1023);  // every slot that the capacity promises is there
    EXPECT_EQ(table->capacity, 2048);
}

TEST_F(Convert, two_failed_growths_in_a_row_raise_the_capacity_once) {
    add_numbers(1024);
    test::fail_allocations_from(1);
    EXPECT_EQ(convert_add_ent(table, "x", &number, 8, CTYPE_INT, nullptr), 1u);
    EXPECT_EQ(convert_add_ent(table, "x", &number, 8, CTYPE_INT, nullptr), 1u);
    EXPECT_EQ(table->count, 1024);
    EXPECT_EQ(table->capacity, 2048);
}

TEST_F(Convert, reinit_clears_integers_and_the_first_byte_of_everything_else) {
    char other[8] = "abc";
    strncpy(text, "xyz", sizeof text);
    number = 77;
    add_text("t", text);
    add_number("n", &number);
    convert_add_ent(table, "f", other, 4, CTYPE_FUNC, &test::quote);
    EXPECT_EQ(convert_reinit(table), 0u);
    EXPECT_EQ(std::string(text, 3), std::string("\0yz", 3));
    EXPECT_EQ(number, 0);
    EXPECT_EQ(std::string(other, 3), std::string("\0bc", 3));
}

TEST_F(Convert, reinit_writes_32_bits_of_an_integer_whatever_its_size) {
    int32_t pair[2] = {0x01020304, 2};
    convert_add_ent(table, "n", pair, 8, CTYPE_INT, nullptr);
    convert_reinit(table);
    EXPECT_EQ(pair[0], 0);
    EXPECT_EQ(pair[1], 2);
}

TEST_F(Convert, two_tables_have_messages_of_their_own) {
    convert_table *other = nullptr;
    ASSERT_EQ(convert_open(&other), 0u);
    char line[] = "nothing";
    convert_internal(other, line);
    EXPECT_EQ(message(), "");
    EXPECT_STREQ(convert_errmsg(other),
                 "convert_internal: input string not name=value pair: nothing");
    convert_close(other);
}

TEST_F(Convert, a_message_is_cut_to_the_buffer) {
    EXPECT_EQ(internal(std::string(3000, 'x')), 1u);
    EXPECT_EQ(message().size(), 1023u);
    EXPECT_TRUE(message().starts_with("convert_internal: input string not name=value pair: xxx"));
}

}  // namespace
