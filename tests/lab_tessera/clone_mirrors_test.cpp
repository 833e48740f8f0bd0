// Which disks and volumes a copy has, from what the mirrors and the clone information say.
#include "lab/tessera/clone_copy.h"

namespace tessera {
namespace {

// Three disks, a volume on each of the first two and one over the last two.
qz::Group whole_group() {
    qz::Group group;
    group.name = "datadg";
    group.id = "g1";
    group.generation = 7;
    group.host = "client1";
    group.disks = {{"d0", "p0"}, {"d1", "p1"}, {"d2", "p2"}};
    group.volumes = {{"vol1", 1048576, 67108864, "ext4", {"d0"}},
                     {"vol2", 1048576, 335544320, "xfs", {"d1"}},
                     {"vol3", 336592896, 67108864, "ext4", {"d1", "d2"}}};
    group.sets = {{"set1", {"vol1", "vol2"}}};
    return group;
}

Mirror mirror(const std::string &number) {
    return {{"/dev/qz/rdmp/p" + number, "/dev/sd" + number}, {whole_group(), "d" + number}};
}

std::string refusal(const std::vector<std::string> &volumes, const std::vector<Mirror> &mirrors) {
    try {
        part_to_copy("datadg", volumes, mirrors);
    } catch (const qz::Error &error) {
        return error.what();
    }
    return "";
}

TEST(PartToCopy, has_the_listed_volumes_and_disks_in_the_groups_order) {
    const qz::Group part = part_to_copy("datadg", {"vol3", "vol2"}, {mirror("2"), mirror("1")});
    ASSERT_EQ(part.disks.size(), 2U);
    EXPECT_EQ(part.disks[0].id, "d1");
    EXPECT_EQ(part.disks[1].id, "d2");
    ASSERT_EQ(part.volumes.size(), 2U);
    EXPECT_EQ(part.volumes[0].name, "vol3");
    EXPECT_EQ(part.volumes[0].start, 336592896U);
    EXPECT_EQ(part.volumes[1].name, "vol2");
    EXPECT_TRUE(part.sets.empty());
}

TEST(PartToCopy, has_a_volume_once_that_is_listed_twice) {
    EXPECT_EQ(part_to_copy("datadg", {"vol1", "vol1"}, {mirror("0")}).volumes.size(), 1U);
}

TEST(PartToCopy, is_refused_without_all_disks_of_a_volume) {
    EXPECT_EQ(refusal({"vol3"}, {mirror("1")}),
              "volume vol3 lies on disk d2, of which no mirror is listed");
}

TEST(PartToCopy, is_refused_for_a_volume_that_the_group_has_not) {
    EXPECT_EQ(refusal({"vol9"}, {mirror("1")}), "disk group datadg has no volume vol9");
}

TEST(PartToCopy, is_refused_for_a_mirror_of_another_group) {
    Mirror other = mirror("1");
    other.region.group.name = "logdg";
    EXPECT_EQ(refusal({"vol1"}, {mirror("0"), other}),
              "/dev/sd1 belongs to disk group logdg, not to datadg");
}

TEST(PartToCopy, is_refused_for_mirrors_of_different_times) {
    Mirror other = mirror("1");
    other.region.group.generation += 1;
    EXPECT_EQ(refusal({"vol1"}, {mirror("0"), other}),
              "/dev/sd1 and /dev/sd0 are copies of different times");
    other = mirror("1");
    other.region.group.id = "g2";
    EXPECT_EQ(refusal({"vol1"}, {mirror("0"), other}),
              "/dev/sd1 and /dev/sd0 are copies of different times");
}

TEST(PartToCopy, is_refused_for_two_mirrors_of_one_disk) {
    Mirror other = mirror("0");
    other.pair.bcv = "/dev/sd9";
    EXPECT_EQ(refusal({"vol1"}, {mirror("0"), other}),
              "/dev/sd9 is a copy of a disk that is listed already");
}

struct CheckOfTheInformation : testing::Test {
    CheckOfTheInformation() {
        options.group = "datadg";
        options.host = "client1";
        options.information = "FILE";
        options.volumes = {"vol1"};
        for (const Mirror &mirror : mirrors) options.devices.push_back(mirror.pair);
        information.group = "datadg";
        information.group_id = "g1";
        information.host = "client1";
        information.disks = {{"d0", "/dev/qz/rdmp/p0"}, {"d1", "/dev/qz/rdmp/p1"}};
        information.volumes = {{"vol1", 1048576, 67108864, "ext4", {"d0"}}};
    }
    std::string refusal() const {
        try {
            check_information(information, options);
            check_mirrors(information, options, mirrors);
        } catch (const CloneInformationError &error) {
            return error.what();
        }
        return "";
    }

    CloneInformation information;
    CloneOptions options;
    std::vector<Mirror> mirrors = {mirror("0"), mirror("1")};
};

TEST_F(CheckOfTheInformation, accepts_the_one_of_this_copy) {
    EXPECT_EQ(refusal(), "");
}

TEST_F(CheckOfTheInformation, refuses_another_group_and_another_host) {
    information.group = "logdg";
    EXPECT_EQ(refusal(), "FILE: it is about disk group logdg, not about datadg");
    information.group = "datadg";
    information.host = "client2";
    EXPECT_EQ(refusal(), "FILE: it was written on host client2, not on client1");
}

TEST_F(CheckOfTheInformation, refuses_a_disk_that_it_does_not_know) {
    information.disks.pop_back();
    EXPECT_EQ(refusal(), "FILE: it knows no disk /dev/qz/rdmp/p1");
}

TEST_F(CheckOfTheInformation, refuses_mirrors_that_are_exchanged) {
    std::swap(mirrors[0].pair.bcv, mirrors[1].pair.bcv);
    std::swap(mirrors[0].region, mirrors[1].region);
    EXPECT_EQ(refusal(), "FILE: /dev/sd1 is not the mirror of /dev/qz/rdmp/p0");
}

// A group of the same name that was made anew.
TEST_F(CheckOfTheInformation, refuses_mirrors_of_an_older_group) {
    information.group_id = "g2";
    EXPECT_EQ(refusal(), "FILE: /dev/sd0 is not the mirror of /dev/qz/rdmp/p0");
}

TEST_F(CheckOfTheInformation, refuses_volumes_that_are_unknown_or_lie_elsewhere) {
    options.volumes = {"vol2"};
    EXPECT_EQ(refusal(), "FILE: it knows no volume vol2");
    options.volumes = {"vol1"};
    information.volumes[0].start += 1048576;
    EXPECT_EQ(refusal(), "FILE: volume vol1 lies elsewhere on the mirrors");
}

TEST(CloneName, is_known_by_group_or_host_and_group) {
    EXPECT_TRUE(is_clone_name("datadg_clone", "datadg"));
    EXPECT_TRUE(is_clone_name("client1_datadg_clone", "datadg"));
    EXPECT_TRUE(is_clone_name("my_host_data_dg_clone", "data_dg"));
    EXPECT_TRUE(is_clone_name("backuphost01_datadg_produ_clone", "datadg_production_2024"));
    EXPECT_TRUE(is_clone_name("abcdefghijklmnopqrstuvwxy_clone", "datadg"));
}

TEST(CloneName, is_never_that_of_the_group_or_of_a_strange_one) {
    EXPECT_FALSE(is_clone_name("datadg", "datadg"));
    EXPECT_FALSE(is_clone_name("datadg_clone", "datadg_clone"));
    EXPECT_FALSE(is_clone_name("logdg_clone", "datadg"));
    EXPECT_FALSE(is_clone_name("client1_logdg_clone", "datadg"));
    EXPECT_FALSE(is_clone_name("client1_datadg", "datadg"));
    EXPECT_FALSE(is_clone_name("_clone", "datadg"));
    EXPECT_FALSE(is_clone_name("client1_data_clone", "datadg"));
    EXPECT_FALSE(is_clone_name("abcdefghijklmnopqrstuvwxyz_clone", "datadg"));
}

}  // namespace
}  // namespace tessera
