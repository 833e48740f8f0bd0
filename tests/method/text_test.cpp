// Bounded text and blocks with an owner.
#include "method/text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(Text, a_text_is_cut_to_its_field) {
    char field[5] = "";
    tf::put(field, "1234");
    EXPECT_STREQ(field, "1234");
    tf::put(field, "12345");
    EXPECT_STREQ(field, "1234");
}

TEST(Text, no_text_is_the_empty_text) {
    char field[5] = "old";
    tf::put(field, nullptr);
    EXPECT_STREQ(field, "");
}

TEST(Text, formatting_answers_the_length_that_there_would_have_been) {
    char field[5] = "";
    EXPECT_EQ(tf::put_format(field, "%s-%d", "ab", 123), 6);
    EXPECT_STREQ(field, "ab-1");
}

TEST(Text, a_released_block_is_no_longer_the_owners) {
    tf::HeapOwner<char> owner(strdup("text"));
    const tf::HeapOwner<char> next(owner.release());
    EXPECT_FALSE(owner);
    EXPECT_STREQ(next.get(), "text");
}

}  // namespace
