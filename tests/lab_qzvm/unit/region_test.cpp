// The private region as a text, whole and damaged in every way.
#include "lab/qzvm/region.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/private_root.h"

namespace {

using qz::Content;

qz::Region example() {
    qz::Region region;
    region.disk_id = "d2";
    region.group.name = "datadg";
    region.group.id = "g1";
    region.group.generation = 7;
    region.group.host = "client1";
    region.group.disks = {{"d1", "p0"}, {"d2", "p1"}};
    region.group.volumes = {{"vola", 1 << 20, 4096, "ext4", {"d1"}},
                            {"volb", 2 << 20, 512, "", {"d2", "d1"}}};
    region.group.sets = {{"both", {"vola", "volb"}}};
    return region;
}

// A region with this body, whose head fits it.
std::string with_body(const std::string &body) {
    uint64_t sum = 0xcbf29ce484222325;
    for (const char c : body) sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    char head[80];
    snprintf(head, sizeof head, "QZVM-REGION 1 %zu %016llx\n", body.size(),
             static_cast<unsigned long long>(sum));
    return head + body;
}

std::string body_of(const std::string &text) {
    return text.substr(text.find('\n') + 1);
}

std::string replaced(std::string text, const std::string &what, const std::string &with) {
    const size_t at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return text.replace(at, what.size(), with);
}

// Why the example is damaged when something in its body stands differently.
std::string damage(const std::string &what, const std::string &with) {
    const auto found = qz::parse(with_body(replaced(body_of(to_text(example())), what, with)));
    EXPECT_EQ(found.content, Content::damaged);
    return found.reason;
}

TEST(Region, is_a_text_that_can_be_read_by_a_person) {
    EXPECT_EQ(body_of(to_text(example())),
              "group datadg g1 7 client1\n"
              "this d2\n"
              "disk d1 p0\n"
              "disk d2 p1\n"
              "volume vola 1048576 4096 ext4 d1\n"
              "volume volb 2097152 512 - d2 d1\n"
              "set both vola volb\n");
    EXPECT_EQ(to_text(example()), with_body(body_of(to_text(example()))));
}

TEST(Region, comes_back_as_it_was_written_whatever_stands_behind_it) {
    const auto found = qz::parse(to_text(example()) + std::string(5000, 'x'));
    ASSERT_EQ(found.content, Content::good);
    EXPECT_EQ(to_text(found.region), to_text(example()));
    EXPECT_EQ(found.region.group.volumes[1].fstype, "");
    EXPECT_EQ(found.region.group.volumes[1].disks, (std::vector<std::string>{"d2", "d1"}));
}

TEST(Region, without_a_host_or_volumes_comes_back_too) {
    qz::Region region = example();
    region.group.host = "";
    region.group.volumes.clear();
    region.group.sets.clear();
    const auto found = qz::parse(to_text(region));
    ASSERT_EQ(found.content, Content::good);
    EXPECT_EQ(found.region.group.host, "");
    EXPECT_EQ(to_text(found.region), to_text(region));
}

TEST(Region, is_none_where_something_else_stands) {
    for (const std::string text : {"", "QZVM-REGION", "QZVM-REGIO", "qzvm-region 1 0 0\n"}) {
        EXPECT_EQ(qz::parse(text).content, Content::none) << text;
    }
    EXPECT_EQ(qz::parse(std::string(4096, '\0')).content, Content::none);
}

TEST(Region, that_is_cut_short_anywhere_is_damaged_and_never_good) {
    const std::string whole = to_text(example());
    for (size_t size = std::string("QZVM-REGION ").size(); size < whole.size(); ++size) {
        EXPECT_EQ(qz::parse(whole.substr(0, size)).content, Content::damaged) << size;
        EXPECT_EQ(qz::parse(whole.substr(0, size) + std::string(4096 - size, '\0')).content,
                  Content::damaged)
            << size;
    }
}

TEST(Region, with_any_byte_changed_is_damaged_or_no_region) {
    const std::string whole = to_text(example());
    for (size_t at = 0; at < whole.size(); ++at) {
        std::string text = whole;
        text[at] = static_cast<char>(text[at] ^ 0x01);
        EXPECT_NE(qz::parse(text).content, Content::good) << at;
    }
}

TEST(Region, of_another_version_is_damaged_and_says_so) {
    const auto found = qz::parse(replaced(to_text(example()), "REGION 1 ", "REGION 2 "));
    EXPECT_EQ(found.content, Content::damaged);
    EXPECT_EQ(found.reason, "it has version 2, and 1 is known here");
}

TEST(Region, says_what_is_wrong_with_its_first_line) {
    EXPECT_EQ(qz::parse("QZVM-REGION 1 5 0").reason, "its first line has no end");
    EXPECT_EQ(qz::parse("QZVM-REGION 1 5\n").reason, "the line 'QZVM-REGION 1 5' is cut short");
    EXPECT_EQ(qz::parse("QZVM-REGION x 5 0\n").reason, "'x' is no number");
    EXPECT_EQ(qz::parse("QZVM-REGION 1 5x 0\n").reason, "'5x' is no number");
    EXPECT_EQ(qz::parse("QZVM-REGION 1 -5 0\n").reason, "'-5' is no number");
    EXPECT_EQ(qz::parse("QZVM-REGION 1 18446744073709551616 0\n").reason,
              "'18446744073709551616' is no number");
    EXPECT_EQ(qz::parse("QZVM-REGION 1 0 0 more\n").reason,
              "the line 'QZVM-REGION 1 0 0 more' says too much");
    EXPECT_EQ(qz::parse("QZVM-REGION 1 18446744073709551615 0\n").reason, "it is cut short");
    EXPECT_EQ(qz::parse("QZVM-REGION 1 1 0\nx").reason, "its checksum is wrong");
}

TEST(Region, says_which_line_is_not_understood) {
    EXPECT_EQ(damage("disk d2 p1", "tape d2 p1"), "the line 'tape d2 p1' is not understood");
    EXPECT_EQ(damage("disk d2 p1", ""), "the line '' is cut short");
    EXPECT_EQ(damage("disk d2 p1", "disk d2"), "the line 'disk d2' is cut short");
    EXPECT_EQ(damage("disk d2 p1", "disk d2 p1 x"), "the line 'disk d2 p1 x' says too much");
    EXPECT_EQ(damage("disk d2 p1", "disk d2 p/1"), "'p/1' is no name");
    EXPECT_EQ(damage("disk d2 p1", "this d1"), "the line 'this d1' is not understood");
    EXPECT_EQ(damage("disk d2 p1", "group x y 1 -"), "the line 'group x y 1 -' is not understood");
    EXPECT_EQ(damage(" ext4 d1\n", " ext4\n"),
              "the line 'volume vola 1048576 4096 ext4' is cut short");
}

TEST(Region, must_name_its_group_and_its_own_disk) {
    EXPECT_EQ(damage("group datadg g1 7 client1\n", ""), "it names no group");
    EXPECT_EQ(damage("this d2\n", ""), "its own disk is not one of the group");
    EXPECT_EQ(damage("this d2", "this d3"), "its own disk is not one of the group");
    EXPECT_EQ(damage("disk d2 p1", "disk d1 p1"), "disk d1 is there twice");
}

TEST(Region, must_have_a_place_for_every_volume) {
    const std::string vola = "volume vola has no place";
    EXPECT_EQ(damage("vola 1048576 4096", "vola 1048064 4096"), vola);  // within the region
    EXPECT_EQ(damage("vola 1048576 4096", "vola 1048576 0"), vola);
    EXPECT_EQ(damage("vola 1048576 4096", "vola 1048577 4096"), vola);
    EXPECT_EQ(damage("vola 1048576 4096", "vola 1048576 4097"), vola);
    EXPECT_EQ(damage("vola 1048576 4096", "vola 1048576 18446744073709551104"), vola);
    EXPECT_EQ(damage("vola 1048576", "vola x"), "'x' is no number");
}

TEST(Region, must_refer_to_what_it_has) {
    EXPECT_EQ(damage("ext4 d1", "ext4 d3"), "volume vola has a foreign disk");
    EXPECT_EQ(damage("volume volb", "volume vola"), "volume vola is there twice");
    EXPECT_EQ(damage("both vola volb", "both vola volc"), "set both has a foreign volume");
    EXPECT_EQ(damage("set both", "set vola"), "set vola is there twice");
}

TEST(Region, that_does_not_fit_before_the_data_is_refused) {
    qz::Region region = example();
    for (int i = 0; i < 30'000; ++i) {
        region.group.volumes.push_back(
            {"volume" + std::to_string(i), 1 << 20, 512, "ext4", {"d1", "d2"}});
    }
    EXPECT_THROW(to_text(region), qz::Error);
}

TEST(Name, is_letters_digits_and_a_few_marks) {
    for (const char *good : {"a", "datadg", "DG-1_x.y", "0"})
        EXPECT_TRUE(qz::is_name(good)) << good;
    for (const char *bad : {"", "-x", ".x", "a b", "a/b", "a\n", "\xc3\xa4"}) {
        EXPECT_FALSE(qz::is_name(bad)) << bad;
    }
    EXPECT_TRUE(qz::is_name(std::string(63, 'x')));
    EXPECT_FALSE(qz::is_name(std::string(64, 'x')));
}

TEST(Id, is_another_one_every_time) {
    EXPECT_NE(qz::new_id(), qz::new_id());
    EXPECT_TRUE(qz::is_name(qz::new_id()));
}

struct RegionOnDisk : testing::Test {
    RegionOnDisk() { resize(4 << 20); }
    void resize(uint64_t size) {
        std::ofstream(disk).put('x');
        std::filesystem::resize_file(disk, size);
    }
    const std::string disk = "/root/disk";
};

TEST_F(RegionOnDisk, is_written_read_and_cleared) {
    EXPECT_EQ(qz::read_region(disk).content, Content::none);
    qz::write_region(disk, example());
    EXPECT_EQ(to_text(qz::read_region(disk).region), to_text(example()));
    EXPECT_EQ(std::filesystem::file_size(disk), 4U << 20);
    qz::clear_region(disk);
    EXPECT_EQ(qz::read_region(disk).content, Content::none);
    EXPECT_TRUE(qz::is_blank(disk));
}

TEST_F(RegionOnDisk, may_be_longer_than_one_block) {
    qz::Region region = example();
    for (int i = 0; i < 300; ++i) {
        region.group.volumes.push_back({"v" + std::to_string(i), 1 << 20, 512, "xfs", {"d1"}});
    }
    ASSERT_GT(to_text(region).size(), 8192U);
    qz::write_region(disk, region);
    EXPECT_EQ(to_text(qz::read_region(disk).region), to_text(region));
}

TEST_F(RegionOnDisk, leaves_what_lies_behind_it) {
    std::fstream file(disk);
    file.seekp(1 << 20);
    file << "data";
    file.close();
    qz::write_region(disk, example());
    qz::clear_region(disk);
    EXPECT_EQ(test::read_file(disk).substr(1 << 20, 4), "data");
}

TEST_F(RegionOnDisk, of_no_capacity_is_none_and_is_not_written) {
    resize(0);
    EXPECT_EQ(qz::read_region(disk).content, Content::none);
    EXPECT_EQ(qz::capacity_of(disk), 0U);
    EXPECT_THROW(qz::write_region(disk, example()), qz::Error);
    EXPECT_THROW(qz::clear_region(disk), qz::Error);
}

TEST_F(RegionOnDisk, that_is_not_there_is_an_error_that_names_it) {
    try {
        qz::read_region("/root/none");
        FAIL();
    } catch (const qz::Error &error) {
        EXPECT_STREQ(error.what(), "cannot look at /root/none: No such file or directory");
    }
}

TEST_F(RegionOnDisk, is_not_blank_with_a_byte_at_its_end) {
    resize(4 << 20);
    std::fstream file(disk);
    file.put('\0');
    file.seekp((1 << 20) - 1);
    file << "x";
    file.close();
    EXPECT_FALSE(qz::is_blank(disk));
}

}  // namespace
