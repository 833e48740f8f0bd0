// Which disks an import takes.
#include "lab/qzvm/choice.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A group of two disks, as one of them says; the devices are made up.
qz::Candidate candidate(const std::string &name, const std::string &disk_id, uint64_t order) {
    qz::Candidate one;
    one.disk.name = name;
    one.disk.block = "/dev/" + name;
    one.disk.order = order;
    one.found.content = qz::Content::good;
    one.found.region.disk_id = disk_id;
    qz::Group &group = one.found.region.group;
    group.name = "datadg";
    group.id = "g1";
    group.generation = 3;
    group.host = "client1";
    group.disks = {{"d1", "p0"}, {"d2", "p1"}};
    return one;
}

struct DiskChoice : testing::Test {
    std::vector<qz::Candidate> candidates = {candidate("sda", "d1", 1), candidate("sdb", "d2", 2)};

    qz::Choice choose(bool clear_host = true) {
        return qz::choose_disks(candidates, "datadg", "backup1", clear_host);
    }
    std::string refusal(bool clear_host = true) {
        try {
            choose(clear_host);
        } catch (const qz::Error &error) {
            return error.what();
        }
        return "";
    }
    std::string chosen() {
        std::string names;
        for (const qz::Disk &disk : choose().imported.disks) names += disk.name + " ";
        return names;
    }
};

TEST_F(DiskChoice, is_in_the_order_of_the_group) {
    std::swap(candidates[0], candidates[1]);
    EXPECT_EQ(chosen(), "sda sdb ");
    EXPECT_EQ(choose().before[0].disk_id, "d1");
    EXPECT_TRUE(choose().notices.empty());
}

TEST_F(DiskChoice, takes_the_one_put_online_last_of_two_with_one_id_and_says_so) {
    candidates.push_back(candidate("sdc", "d1", 9));
    candidates.push_back(candidate("sdd", "d1", 5));
    EXPECT_EQ(chosen(), "sdc sdb ");
    EXPECT_EQ(
        choose().notices,
        (qz::Notices{"disk sdd is passed over: sdc has the same id and was put online later",
                     "disk sda is passed over: sdc has the same id and was put online later"}));
}

TEST_F(DiskChoice, never_takes_a_disk_of_a_group_that_is_imported_here) {
    candidates.push_back(candidate("sdc", "d1", 9));
    candidates.back().taken = true;
    EXPECT_EQ(chosen(), "sda sdb ");
    EXPECT_TRUE(choose().notices.empty());
}

TEST_F(DiskChoice, fails_when_all_are_taken) {
    for (qz::Candidate &one : candidates) one.taken = true;
    EXPECT_EQ(refusal(), "no disk that is online here and free belongs to a group datadg");
}

TEST_F(DiskChoice, fails_when_a_disk_is_missing) {
    candidates.pop_back();
    EXPECT_EQ(refusal(),
              "disk p1 (id d2) of group datadg is missing: no disk that is online here and free "
              "carries it");
}

TEST_F(DiskChoice, names_damaged_and_unreadable_disks_when_one_is_missing) {
    candidates[1].found = {qz::Content::damaged, {}, "its checksum is wrong"};
    candidates.push_back({});
    candidates.back().trouble = "cannot open /dev/sdc: No such device or address";
    EXPECT_EQ(refusal(),
              "disk p1 (id d2) of group datadg is missing: no disk that is online here and free "
              "carries it; the private region of disk sdb is damaged: its checksum is wrong; "
              "cannot open /dev/sdc: No such device or address");
}

TEST_F(DiskChoice, does_not_mind_a_damaged_disk_when_none_is_missing) {
    candidates.push_back(candidate("sdc", "d3", 9));
    candidates.back().found = {qz::Content::damaged, {}, "it is cut short"};
    EXPECT_EQ(chosen(), "sda sdb ");
}

TEST_F(DiskChoice, refuses_a_group_of_another_host_unless_that_is_cleared) {
    EXPECT_EQ(refusal(false),
              "group datadg is imported on host client1; deport it there, or clear that with -C "
              "when the host does not use it");
    EXPECT_EQ(refusal(true), "");
}

TEST_F(DiskChoice, takes_a_group_of_this_host_or_of_none_without_clearing) {
    for (const char *host : {"", "backup1"}) {
        for (qz::Candidate &one : candidates) one.found.region.group.host = host;
        EXPECT_EQ(refusal(false), "") << host;
    }
}

TEST_F(DiskChoice, refuses_when_a_single_disk_is_another_hosts) {
    candidates[0].found.region.group.host = "";
    EXPECT_NE(refusal(false), "");
}

TEST_F(DiskChoice, refuses_two_groups_of_one_name) {
    candidates.push_back(candidate("sdc", "d9", 9));
    candidates.back().found.region.group.id = "g2";
    EXPECT_EQ(refusal(),
              "disks of 2 different groups called datadg are online; put those of all but one "
              "offline");
}

TEST_F(DiskChoice, does_not_mix_disks_of_two_groups_with_one_disk_id) {
    candidates.push_back(candidate("sdc", "d1", 9));
    candidates.back().found.region.group.id = "g2";
    candidates.back().found.region.group.name = "otherdg";
    EXPECT_EQ(chosen(), "sda sdb ");
}

TEST_F(DiskChoice, believes_the_newest_of_disks_that_differ) {
    candidates[1].found.region.group.generation = 4;
    candidates[1].found.region.group.volumes = {{"new", 1 << 20, 512, "", {"d1"}}};
    EXPECT_NE(choose().imported.group.volume("new"), nullptr);
    EXPECT_EQ(choose().imported.group.generation, 4U);
}

TEST_F(DiskChoice, finds_disks_that_an_interrupted_renaming_has_left_behind) {
    candidates[1].found.region.group.name = "clone";
    EXPECT_EQ(chosen(), "sda sdb ");
}

TEST_F(DiskChoice, prefers_disks_of_the_name_to_those_of_another) {
    candidates.push_back(candidate("sdc", "d1", 9));
    candidates.back().found.region.group.name = "clone";
    EXPECT_EQ(chosen(), "sda sdb ");
}

TEST_F(DiskChoice, of_a_group_that_nobody_has_fails) {
    candidates.clear();
    EXPECT_EQ(refusal(), "no disk that is online here and free belongs to a group datadg");
}

}  // namespace
