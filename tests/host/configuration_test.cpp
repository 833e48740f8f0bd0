// Entries of "ROOT/tq.conf".
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "tessera_host.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

constexpr char root[] = "/usr/quill/tessera";

struct Configuration : testing::Test {
    static void write(const std::string &text) {
        test::write_file(std::string(root) + "/tq.conf", text);
    }
    // The value, or "absent".
    std::string entry(const char *key) {
        Q_strlcpy(value, "untouched", sizeof value);
        if (read_AD_HOC_config_entry(root, key, value, sizeof value) != 0) {
            EXPECT_STREQ(value, "untouched");
            return "absent";
        }
        return value;
    }
    char value[64];
};

TEST_F(Configuration, missing_file_has_no_entries) {
    EXPECT_EQ(entry("dgimport"), "absent");
}

TEST_F(Configuration, entry_is_present_with_its_value) {
    write("first=1\ndgimport=yes\n");
    EXPECT_EQ(entry("dgimport"), "yes");
    EXPECT_EQ(entry("first"), "1");
}

TEST_F(Configuration, key_is_compared_whole_and_with_its_case) {
    write("dgimport_client1=yes\nno_dgimport=1\n");
    EXPECT_EQ(entry("dgimport"), "absent");
    EXPECT_EQ(entry("DGIMPORT_client1"), "absent");
    EXPECT_EQ(entry("dgimport_client"), "absent");
    EXPECT_EQ(entry("dgimport_client1"), "yes");
}

TEST_F(Configuration, comments_and_lines_without_an_equals_sign_are_no_entries) {
    write("# dgimport=yes\n   #dgimport=yes\n\ndgimport\n=yes\n");
    EXPECT_EQ(entry("dgimport"), "absent");
}

TEST_F(Configuration, hash_inside_a_value_belongs_to_it) {
    write("note=a # b\n");
    EXPECT_EQ(entry("note"), "a # b");
}

TEST_F(Configuration, blanks_around_key_and_value_do_not_count) {
    write(" \tdgimport =  a b \r\n");
    EXPECT_EQ(entry("dgimport"), "a b");
}

TEST_F(Configuration, empty_value_is_present) {
    write("dgimport=\n");
    EXPECT_EQ(entry("dgimport"), "");
}

TEST_F(Configuration, value_may_hold_an_equals_sign) {
    write("a=b=c\n");
    EXPECT_EQ(entry("a"), "b=c");
}

TEST_F(Configuration, first_of_two_entries_holds) {
    write("a=1\na=2\n");
    EXPECT_EQ(entry("a"), "1");
}

TEST_F(Configuration, last_line_needs_no_newline) {
    write("a=1");
    EXPECT_EQ(entry("a"), "1");
}

TEST_F(Configuration, long_value_is_cut_to_the_size) {
    write("a=" + std::string(9000, 'x') + "\nb=2\n");
    EXPECT_EQ(entry("a"), std::string(63, 'x'));
    EXPECT_EQ(entry("b"), "2");
}

TEST_F(Configuration, entries_are_found_without_memory) {
    write("dgimport=1\n");
    test::fail_allocations_from(1);
    const int status = read_AD_HOC_config_entry(root, "dgimport", nullptr, 0);
    test::no_more_faults();
    EXPECT_EQ(status, 0);
}

TEST_F(Configuration, presence_can_be_asked_without_a_buffer) {
    write("a=1\n");
    EXPECT_EQ(read_AD_HOC_config_entry(root, "a", nullptr, 0), 0);
    EXPECT_NE(read_AD_HOC_config_entry(root, "b", nullptr, 0), 0);
}

TEST_F(Configuration, root_that_is_too_long_has_no_entries) {
    EXPECT_NE(read_AD_HOC_config_entry(std::string(5000, '/').c_str(), "a", value, sizeof value),
              0);
}

TEST_F(Configuration, file_whose_path_cannot_be_formatted_has_no_entries) {
    write("dgimport=yes\n");
    const test::SystemFault fault("Q_snprintf", 1, 0);
    EXPECT_EQ(entry("dgimport"), "absent");
}

TEST_F(Configuration, comment_is_no_entry_even_of_a_key_that_begins_like_one) {
    write("#dgimport=yes\n");
    EXPECT_EQ(entry("#dgimport"), "absent");
}

TEST_F(Configuration, line_of_blanks_is_no_entry) {
    write(" \t \n\n  \ndgimport=yes\n");
    EXPECT_EQ(entry("dgimport"), "yes");
    EXPECT_EQ(entry(""), "absent");
}

TEST_F(Configuration, presence_can_be_asked_without_a_buffer_whatever_its_size) {
    write("a=1\n");
    EXPECT_EQ(read_AD_HOC_config_entry(root, "a", nullptr, sizeof value), 0);
}

// Cut at the longest path, the name is that of another file.
TEST_F(Configuration, file_whose_path_is_cut_is_not_read) {
    test::write_file("/etc/other", "dgimport=yes\n");
    const std::string name = "/etc/other";
    const std::string longest = std::string(PATH_MAX - 1 - name.size(), '/') + name;
    ASSERT_EQ(access(longest.c_str(), R_OK), 0);
    EXPECT_NE(read_AD_HOC_config_entry(longest.c_str(), "dgimport", value, sizeof value), 0);
}

}  // namespace
