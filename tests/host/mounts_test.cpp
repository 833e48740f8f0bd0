// How the kernel's mount table is read, line by line.
#include "host/mounts.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <string>

#include "tessera_host.h"
#include "tests/host/replaced_calls.h"
#include "tests/support/private_root.h"

namespace {

using tessera::Mounted;

struct MountTable : testing::Test {
    ~MountTable() override { test::replaced() = {}; }

    // Looks the device 98:7 up in a table of these lines.
    Mounted look_up(const std::string &table, const char *dir = nullptr) {
        test::replaced().mount_table = table;
        return tessera::find_mount(makedev(98, 7), dir, found);
    }
    static std::string line(const std::string &dir, const std::string &device = "98:7") {
        return "36 35 " + device + " / " + dir + " rw,noatime - ext4 /dev/x rw\n";
    }
    char found[tessera::directory_size] = "";
};

TEST_F(MountTable, device_without_a_line_is_mounted_nowhere) {
    EXPECT_EQ(look_up(line("/mnt/other", "98:8")), Mounted::nowhere);
    EXPECT_STREQ(found, "");
}

TEST_F(MountTable, lines_that_make_no_sense_are_passed_over) {
    EXPECT_EQ(look_up("\n36\n36 35\n36 35 98:7\n36 35 98:7 /\n" + line("/mnt/a", "98") +
                      line("/mnt/b", "x:7") + line("/mnt/c")),
              Mounted::elsewhere);
    EXPECT_STREQ(found, "/mnt/c");
}

TEST_F(MountTable, three_octal_digits_behind_a_backslash_are_one_character) {
    look_up(line("/mnt/a\\040b\\134\\011c\\012"));
    EXPECT_STREQ(found, "/mnt/a b\\\tc\n");
}

TEST_F(MountTable, any_other_backslash_is_itself) {
    look_up(line("/mnt/a\\z\\08\\1"));
    EXPECT_STREQ(found, "/mnt/a\\z\\08\\1");
    look_up(line("/mnt/b\\04"));
    EXPECT_STREQ(found, "/mnt/b\\04");
}

TEST_F(MountTable, digits_without_a_backslash_are_themselves) {
    look_up(line("/101/x1412"));
    EXPECT_STREQ(found, "/101/x1412");
}

TEST_F(MountTable, half_a_number_is_nobody_s) {
    test::replaced().mount_table = line("/mnt/a", "98:x") + line("/mnt/b", "98");
    EXPECT_EQ(tessera::find_mount(makedev(98, 0), nullptr, found), Mounted::nowhere);
}

TEST_F(MountTable, mount_that_went_while_the_table_was_read_is_not_seen_there) {
    test::make_folders("/mnt/copy");
    test::replaced().failing = "stat";
    EXPECT_EQ(look_up(line("/mnt/copy"), "/mnt/copy"), Mounted::elsewhere);
    EXPECT_EQ(test::replaced().failing_call, 0) << "the directory was not looked at";
}

TEST_F(MountTable, table_that_cannot_be_opened_has_no_answer) {
    test::replaced().failing = "fopen";
    EXPECT_EQ(look_up(line("/mnt/copy")), Mounted::unknown);
}

}  // namespace
