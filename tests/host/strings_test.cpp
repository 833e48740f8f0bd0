// Bounded text functions.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <string>

#include "tessera_host.h"

namespace {

int format_list(char *dst, size_t size, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int length = Q_vsnprintf(dst, size, format, args);
    va_end(args);
    return length;
}

TEST(Strings, copy_that_fits_answers_its_length) {
    char text[8] = "xxxxxxx";
    EXPECT_EQ(Q_strlcpy(text, "abc", sizeof text), 3U);
    EXPECT_STREQ(text, "abc");
}

TEST(Strings, copy_that_fills_the_buffer_keeps_the_last_byte_for_the_end) {
    char text[4];
    EXPECT_EQ(Q_strlcpy(text, "abc", sizeof text), 3U);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(Q_strlcpy(text, "abcd", sizeof text), 4U);
    EXPECT_STREQ(text, "abc");
}

TEST(Strings, copy_into_size_0_writes_nothing) {
    char text[2] = {'x', 'y'};
    EXPECT_EQ(Q_strlcpy(text, "abc", 0), 3U);
    EXPECT_EQ(text[0], 'x');
}

TEST(Strings, append_stops_at_the_size_and_answers_the_full_length) {
    char text[6] = "abc";
    EXPECT_EQ(Q_strlcat(text, "defg", sizeof text), 7U);
    EXPECT_STREQ(text, "abcde");
    EXPECT_EQ(Q_strlcat(text, "", sizeof text), 5U);
}

TEST(Strings, append_to_a_text_without_an_end_writes_nothing) {
    char text[3] = {'a', 'b', 'c'};
    EXPECT_EQ(Q_strlcat(text, "de", sizeof text), 5U);
    EXPECT_EQ(std::string(text, 3), "abc");
}

TEST(Strings, formatting_answers_the_full_length_and_cuts) {
    char text[5];
    EXPECT_EQ(Q_snprintf(text, sizeof text, "%s-%d", "abc", 42), 6);
    EXPECT_STREQ(text, "abc-");
    EXPECT_EQ(format_list(text, sizeof text, "%d%s", 7, "xyzzy"), 6);
    EXPECT_STREQ(text, "7xyz");
}

TEST(Strings, formatting_that_is_impossible_is_negative) {
    char text[64];
    const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};
    EXPECT_LT(Q_snprintf(text, sizeof text, "%ls", no_character), 0);
}

TEST(Strings, scanning_answers_the_number_of_fields) {
    int a = 0, b = 0;
    EXPECT_EQ(Q_sscanf("12 34", "%d %d", &a, &b), 2);
    EXPECT_EQ(a, 12);
    EXPECT_EQ(b, 34);
    EXPECT_EQ(Q_sscanf("x", "%d", &a), 0);
}

}  // namespace
