#include "snap/shell_word.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/allocation_faults.h"

namespace {

// What a real shell hands to a program for that word.
std::string through_the_shell(const std::string &name) {
    const snap::ShellWord word(name.c_str());
    const std::string line = std::string("printf '[%s]' ") + word.text();
    FILE *pipe = popen(line.c_str(), "re");
    std::string got;
    char part[4096];
    for (size_t size; (size = fread(part, 1, sizeof part, pipe)) > 0;) got.append(part, size);
    EXPECT_EQ(pclose(pipe), 0) << name;
    return got;
}

TEST(ShellWord, an_ordinary_name_is_the_callers_own_text) {
    const std::string name =
        "/dev/qz/rdsk/ABCDEFGHIJKLMNOPQRSTUVWXYZ/abcdefghijklmnopqrstuvwxyz_0123456789-.,:+=@%";
    const snap::ShellWord word(name.c_str());
    EXPECT_EQ(word.text(), name.c_str());
}

TEST(ShellWord, the_empty_text_and_none_at_all_stay_empty) {
    EXPECT_STREQ(snap::ShellWord("").text(), "");
    EXPECT_STREQ(snap::ShellWord(nullptr).text(), "");
}

TEST(ShellWord, a_leading_dash_stays_as_it_is) {
    EXPECT_STREQ(snap::ShellWord("-g").text(), "-g");
}

TEST(ShellWord, every_other_byte_brings_quotes) {
    const std::string plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.,/:+=@%";
    for (int byte = 1; byte < 256; ++byte) {
        const std::string name(1, static_cast<char>(byte));
        const bool quoted = std::string(snap::ShellWord(name.c_str()).text()) != name;
        EXPECT_EQ(quoted, plain.find(name) == std::string::npos) << byte;
    }
}

TEST(ShellWord, the_shell_hands_on_every_byte_as_it_was) {
    std::string name;
    for (int byte = 1; byte < 256; ++byte) name += static_cast<char>(byte);
    EXPECT_EQ(through_the_shell(name), "[" + name + "]");
}

TEST(ShellWord, no_name_is_a_command) {
    for (const char *name : {"$(exit 7)", "`exit 7`", "; exit 7", "| exit 7", "&& exit 7",
                             "a\nexit 7\n", "'; exit 7; '", "'\"'; exit 7", "\\'; exit 7",
                             ">/nowhere/x", "$HOME", "*", "~", "a b", "#", "!", "\x1b[2J"}) {
        EXPECT_EQ(through_the_shell(name), std::string("[") + name + "]") << name;
    }
}

TEST(ShellWord, nothing_is_too_long) {
    for (const size_t length : {1023U, 1024U, 4096U}) {
        for (const char byte : {'\'', ' ', 'x'}) {
            const std::string name(length, byte);
            EXPECT_EQ(through_the_shell(name), "[" + name + "]") << length;
        }
    }
    EXPECT_EQ(snap::longest_quoted(3), std::string(snap::ShellWord("'''").text()).size());
}

TEST(ShellWord, without_memory_the_word_is_lost_and_an_ordinary_one_is_not) {
    test::fail_allocation(1);
    const snap::ShellWord word("a b");
    EXPECT_TRUE(word.lost());
    test::no_more_faults();
    test::fail_allocation(1);
    const snap::ShellWord ordinary("ab");
    EXPECT_FALSE(ordinary.lost());
    test::no_more_faults();
}

}  // namespace
