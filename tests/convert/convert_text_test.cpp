// From variables to text and back.
#include <gtest/gtest.h>
#include <malloc.h>

#include <climits>
#include <cstring>
#include <string>

#include "tests/convert/convert_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

using test::Convert;

TEST_F(Convert, an_empty_table_gives_the_empty_text_in_1024_bytes) {
    char *out = nullptr;
    test::no_more_faults();
    ASSERT_EQ(convert_external(table, &out), 0u);
    EXPECT_EQ(test::allocations_seen(), 2);
    EXPECT_STREQ(out, "");
    EXPECT_GE(malloc_usable_size(out), 1024u);
    free(out);
}

TEST_F(Convert, lines_stand_in_the_order_of_registration) {
    char other[16] = "second";
    strncpy(text, "first", sizeof text);
    number = -42;
    add_text("b", text);
    add_number("n", &number);
    add_text("a", other);
    EXPECT_EQ(external(), "b=first\nn=-42\na=second\n");
}

TEST_F(Convert, the_extremes_of_an_integer_are_printed_whole) {
    int32_t low = INT32_MIN;
    int32_t high = INT32_MAX;
    add_number("low", &low);
    add_number("high", &high);
    EXPECT_EQ(external(), "low=-2147483648\nhigh=2147483647\n");
}

TEST_F(Convert, an_empty_text_and_an_empty_key_are_lines_too) {
    add_text("", text);
    EXPECT_EQ(external(), "=\n");
}

TEST_F(Convert, a_function_gives_the_text_of_its_entry) {
    strncpy(text, "v", sizeof text);
    convert_add_ent(table, "f", text, sizeof text, CTYPE_FUNC, &test::quote);
    EXPECT_EQ(external(), "f=<v>\n");
}

TEST_F(Convert, a_function_that_returns_null_fails_the_whole_text) {
    add_text("t", text);
    convert_add_ent(table, "bad", text, sizeof text, CTYPE_FUNC, &test::refuse);
    char *out = text;
    EXPECT_EQ(convert_external(table, &out), 1u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(message(), "Conversion function error : bad \n");
}

TEST_F(Convert, a_text_longer_than_its_size_is_printed_whole) {
    char longer[3000];
    memset(longer, 'x', sizeof longer);
    longer[sizeof longer - 1] = '\0';
    convert_add_ent(table, "k", longer, 10, CTYPE_STR, nullptr);
    EXPECT_EQ(external(), "k=" + std::string(2999, 'x') + "\n");
}

TEST_F(Convert, a_line_of_1023_bytes_grows_its_buffer_by_one_step) {
    char value[1021];
    memset(value, 'x', sizeof value);
    value[sizeof value - 1] = '\0';
    add_text("k", value);  // 1 + 1020 + 3 = 1024 bytes needed
    test::no_more_faults();
    EXPECT_EQ(external(), "k=" + std::string(1020, 'x') + "\n");
    EXPECT_EQ(test::allocations_seen(), 3);  // the line's; the text itself needs 1023 and stays
}

TEST_F(Convert, a_line_of_1022_bytes_needs_no_growth) {
    char value[1020];
    memset(value, 'x', sizeof value);
    value[sizeof value - 1] = '\0';
    add_text("k", value);
    test::no_more_faults();
    EXPECT_EQ(external().size(), 1022u);
    EXPECT_EQ(test::allocations_seen(), 2);
}

TEST_F(Convert, an_integer_line_is_cut_at_the_size_of_the_line_buffer) {
    const std::string key(1100, 'k');
    add_number(key.c_str(), &number);
    EXPECT_EQ(external(), std::string(1023, 'k'));
}

TEST_F(Convert, an_integer_line_has_the_room_that_an_earlier_text_made) {
    char longer[1500];
    memset(longer, 'x', sizeof longer);
    longer[sizeof longer - 1] = '\0';
    const std::string key(1100, 'k');
    add_text("t", longer);
    add_number(key.c_str(), &number);
    EXPECT_EQ(external(), "t=" + std::string(1499, 'x') + "\n" + key + "=0\n");
}

TEST_F(Convert, external_without_memory_for_the_line_fails_at_207) {
    char *out = text;
    test::fail_allocation(1);
    EXPECT_EQ(convert_external(table, &out), 1u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(message(), "convert_external: Memory allocation failure at line 207");
}

TEST_F(Convert, external_without_memory_for_the_result_fails_at_216) {
    char *out = text;
    test::fail_allocation(2);
    EXPECT_EQ(convert_external(table, &out), 1u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(message(), "convert_external: Memory allocation failure at line 216");
}

TEST_F(Convert, external_fails_when_the_line_of_a_text_cannot_grow) {
    char longer[2000];
    memset(longer, 'x', sizeof longer);
    longer[sizeof longer - 1] = '\0';
    add_text("t", longer);
    char *out = text;
    test::fail_allocation(3);
    EXPECT_EQ(convert_external(table, &out), 1u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(message(), "make_room: Memory allocation failure at line 177");
}

TEST_F(Convert, external_fails_when_the_line_of_a_function_cannot_grow) {
    const std::string key(1100, 'k');
    convert_add_ent(table, key.c_str(), text, sizeof text, CTYPE_FUNC, &test::quote);
    char *out = text;
    test::fail_allocation(3);
    EXPECT_EQ(convert_external(table, &out), 1u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(message(), "make_room: Memory allocation failure at line 177");
}

TEST_F(Convert, external_fails_when_the_result_cannot_grow) {
    add_numbers(400);  // 1600 bytes
    char *out = text;
    test::fail_allocation(3);
    EXPECT_EQ(convert_external(table, &out), 1u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(message(), "make_room: Memory allocation failure at line 177");
}

TEST_F(Convert, room_that_is_there_is_left_as_it_is) {
    size_t size = 1024;
    char *buffer = static_cast<char *>(malloc(size));
    char *const before = buffer;
    EXPECT_EQ(make_room(table, 1023, &buffer, &size), 0u);
    EXPECT_EQ(size, 1024u);
    EXPECT_EQ(buffer, before);
    free(buffer);
}

TEST_F(Convert, room_grows_in_steps_of_1024_to_strictly_more_than_needed) {
    size_t size = 1024;
    char *buffer = static_cast<char *>(malloc(size));
    EXPECT_EQ(make_room(table, 1024, &buffer, &size), 0u);
    EXPECT_EQ(size, 2048u);
    free(buffer);
    size = 1024;
    buffer = static_cast<char *>(malloc(size));
    EXPECT_EQ(make_room(table, 3000, &buffer, &size), 0u);
    EXPECT_EQ(size, 3072u);
    EXPECT_GE(malloc_usable_size(buffer), 3072u);
    free(buffer);
}

TEST_F(Convert, a_buffer_that_cannot_grow_is_gone) {
    size_t size = 1024;
    char *buffer = static_cast<char *>(malloc(size));
    test::fail_allocation(1);
    EXPECT_EQ(make_room(table, 1024, &buffer, &size), 1u);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(message(), "make_room: Memory allocation failure at line 177");
}

TEST_F(Convert, a_buffer_that_cannot_grow_is_given_back) {
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) {
        size_t size = 1024;
        char *buffer = static_cast<char *>(malloc(size));
        test::fail_allocation(1);
        make_room(table, 1024, &buffer, &size);
        test::no_more_faults();
    }
    EXPECT_LT(mallinfo2().uordblks, before + 10240);
}

TEST_F(Convert, a_value_may_hold_the_equals_sign) {
    add_text("a", text);
    EXPECT_EQ(internal("a=b=c"), 0u);
    EXPECT_STREQ(text, "b=c");
}

TEST_F(Convert, internal_changes_the_first_equals_sign_of_the_line_to_nul) {
    add_text("a", text);
    char line[] = "a=b=c";
    convert_internal(table, line);
    EXPECT_EQ(std::string(line, 5), std::string("a\0b=c", 5));
}

TEST_F(Convert, a_line_that_begins_with_the_equals_sign_has_the_empty_key) {
    EXPECT_EQ(internal("=x"), 0u);
    EXPECT_EQ(message(), "convert_internal: cant find key: ");
    add_text("", text);
    EXPECT_EQ(internal("=x"), 0u);
    EXPECT_STREQ(text, "x");
}

TEST_F(Convert, a_line_without_an_equals_sign_fails) {
    add_text("abc", text);
    EXPECT_EQ(internal("abc"), 1u);
    EXPECT_EQ(message(), "convert_internal: input string not name=value pair: abc");
}

TEST_F(Convert, an_unknown_key_is_no_error_and_changes_nothing) {
    strncpy(text, "before", sizeof text);
    number = 5;
    add_text("t", text);
    add_number("n", &number);
    EXPECT_EQ(internal("x=7"), 0u);
    EXPECT_EQ(message(), "convert_internal: cant find key: x");
    EXPECT_STREQ(text, "before");
    EXPECT_EQ(number, 5);
}

TEST_F(Convert, any_key_is_unknown_to_an_empty_table) {
    EXPECT_EQ(internal("x=7"), 0u);
    EXPECT_EQ(message(), "convert_internal: cant find key: x");
}

TEST_F(Convert, keys_are_compared_exactly) {
    add_text("key", text);
    internal("Key=1");
    internal("ke=1");
    internal("key2=1");
    EXPECT_STREQ(text, "");
    internal("key=1");
    EXPECT_STREQ(text, "1");
}

TEST_F(Convert, of_several_entries_of_one_name_the_first_always_wins) {
    char second[16] = "untouched";
    add_text("k", text);
    add_text("k", second);
    internal("k=1");
    internal("k=2");
    EXPECT_STREQ(text, "2");
    EXPECT_STREQ(second, "untouched");
}

TEST_F(Convert, lines_that_repeat_in_groups_find_the_first_of_their_name_each_time) {
    int32_t a = 0, b = 0, second_a = 0;
    add_number("a", &a);
    add_number("b", &b);
    add_number("a", &second_a);
    for (int round = 1; round < 4; ++round) {
        for (const char *key : {"a", "b", "a", "a", "b"}) {
            a = b = -1;
            EXPECT_EQ(internal(std::string(key) + "=" + std::to_string(round)), 0U);
            EXPECT_EQ(*key == 'a' ? a : b, round) << key;
            EXPECT_EQ(*key == 'a' ? b : a, -1) << key;
        }
    }
    EXPECT_EQ(second_a, 0);
}

TEST_F(Convert, a_line_that_does_not_come_in_its_usual_place_is_found_all_the_same) {
    int32_t values[4] = {};
    const char *names[] = {"a", "b", "c", "d"};
    for (int i = 0; i < 3; ++i) add_number(names[i], &values[i]);
    for (const char *line : {"a=1", "b=2", "c=3", "a=4", "c=5", "x=6", "b=7", "a=8", "b=9"}) {
        EXPECT_EQ(internal(line), 0U);
    }
    EXPECT_EQ(values[0], 8);
    EXPECT_EQ(values[1], 9);
    EXPECT_EQ(values[2], 5);
    // One that is registered later is no stranger either.
    EXPECT_EQ(internal("d=1"), 0U);
    EXPECT_EQ(message(), "convert_internal: cant find key: d");
    add_number("d", &values[3]);
    EXPECT_EQ(internal("d=2"), 0U);
    EXPECT_EQ(values[3], 2);
}

TEST_F(Convert, a_text_is_cut_to_the_size_of_its_variable_less_one) {
    char small[6] = {'z', 'z', 'z', 'z', 'z', 'z'};
    convert_add_ent(table, "s", small, 5, CTYPE_STR, nullptr);
    EXPECT_EQ(internal("s=abcdefgh"), 0u);
    EXPECT_STREQ(small, "abcd");
    EXPECT_EQ(small[5], 'z');
}

TEST_F(Convert, an_integer_is_read_up_to_its_first_non_digit) {
    add_number("n", &number);
    internal("n=12abc");
    EXPECT_EQ(number, 12);
    internal("n=  -7 8");
    EXPECT_EQ(number, -7);
    internal("n=+3");
    EXPECT_EQ(number, 3);
    internal("n=0x10");
    EXPECT_EQ(number, 0);
}

TEST_F(Convert, an_integer_without_leading_digits_is_0) {
    number = 9;
    add_number("n", &number);
    EXPECT_EQ(internal("n=abc"), 0u);
    EXPECT_EQ(number, 0);
    number = 9;
    EXPECT_EQ(internal("n="), 0u);
    EXPECT_EQ(number, 0);
}

TEST_F(Convert, an_integer_is_32_bits_wide_although_8_bytes_are_registered) {
    int32_t pair[2] = {1, 2};
    convert_add_ent(table, "n", pair, 8, CTYPE_INT, nullptr);
    EXPECT_EQ(external(), "n=1\n");
    internal("n=-1");
    EXPECT_EQ(pair[0], -1);
    EXPECT_EQ(pair[1], 2);
}

TEST_F(Convert, a_function_converts_on_the_way_in_and_its_text_is_cut) {
    convert_add_ent(table, "f", text, 5, CTYPE_FUNC, &test::quote);
    EXPECT_EQ(internal("f=abcdef"), 0u);
    EXPECT_STREQ(text, "<abc");
}

TEST_F(Convert, a_function_that_returns_null_on_the_way_in_stores_nothing) {
    strncpy(text, "before", sizeof text);
    convert_add_ent(table, "f", text, sizeof text, CTYPE_FUNC, &test::refuse);
    EXPECT_EQ(internal("f=x"), 1u);
    EXPECT_EQ(message(), "Conversion function error : f \n");
    EXPECT_STREQ(text, "before");
}

TEST_F(Convert, a_text_comes_back_as_it_went_out) {
    char other[32] = "";
    strncpy(text, " blanks, commas and = signs ", sizeof text);
    number = INT32_MIN;
    add_text("t", text);
    add_number("n", &number);
    add_text("o", other);
    const std::string whole = external();
    convert_reinit(table);
    for (size_t at = 0; at < whole.size();) {
        const size_t end = whole.find('\n', at);
        EXPECT_EQ(internal(whole.substr(at, end - at)), 0u);
        at = end + 1;
    }
    EXPECT_EQ(external(), whole);
}

TEST_F(Convert, any_failing_allocation_gives_status_1_and_no_text) {
    char longer[5000];
    memset(longer, 'x', sizeof longer);
    longer[sizeof longer - 1] = '\0';
    add_text("t", longer);
    add_numbers(1000);
    test::no_more_faults();
    ASSERT_NE(external(), "failed");
    const int allocations = test::allocations_seen();
    ASSERT_GT(allocations, 4);
    for (int n = 1; n <= allocations; ++n) {
        test::fail_allocation(n);
        EXPECT_EQ(external(), "failed") << n;
    }
}

}  // namespace
