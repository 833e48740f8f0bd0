// What a host remembers, and which disks it sees.
#include "lab/qzvm/state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <string>

#include "lab/qzvm/disks.h"
#include "lab/qzvm/records.h"
#include "tests/support/private_root.h"

namespace {

TEST(State, comes_back_as_it_was_written) {
    qz::State state;
    state.daemon = qz::Daemon::stalled;
    state.order = 4;
    state.disks["/dev/sda"] = {true, 4};
    state.disks["/dev/qz/dmp/p0"] = {};
    state.groups["datadg"] = {"g1", {"/dev/sda", "/dev/qz/dmp/p0"}};
    const qz::State back = qz::State::of_text(state.text());
    EXPECT_EQ(back.text(), state.text());
    EXPECT_EQ(back.daemon, qz::Daemon::stalled);
    EXPECT_EQ(back.groups.at("datadg").disks.size(), 2U);
}

TEST(State, of_a_fresh_host_is_empty_and_enabled) {
    const qz::State state = qz::State::of_text("");
    EXPECT_EQ(state.daemon, qz::Daemon::enabled);
    EXPECT_TRUE(state.disks.empty());
    EXPECT_TRUE(state.groups.empty());
}

TEST(State, that_is_damaged_is_an_error) {
    for (const char *text : {"daemon asleep\n", "order x\n", "disk /dev/sda\n",
                             "disk /dev/sda x 1\n", "group datadg\n", "what\n", "\n"}) {
        EXPECT_THROW(qz::State::of_text(text), qz::Error) << text;
    }
}

TEST(State, is_kept_below_run) {
    {
        const qz::Exclusive only, once_more;
        qz::State state;
        state.order = 9;
        qz::save_state(state);
    }
    const qz::Exclusive only;
    EXPECT_EQ(qz::load_state().order, 9U);
}

// Nodes in the private /dev; nothing is opened, so it does not matter what they lead to.
struct SeenDisks : testing::Test {
    void SetUp() override {
        if (!test::is_real_root()) GTEST_SKIP() << "nodes need root";
    }
    static void node(const std::string &path, unsigned minor, mode_t type = S_IFBLK) {
        test::make_folders(path.substr(0, path.rfind('/')));
        ASSERT_EQ(mknod(path.c_str(), type | 0600, makedev(120, minor)), 0) << path;
    }
    std::string names() {
        std::string text;
        const qz::Disks disks = qz::Disks::scan(state);
        for (const qz::Disk &disk : disks.all()) text += disk.name + " ";
        return text;
    }
    qz::State state;
};

TEST_F(SeenDisks, are_whole_disks_of_the_known_folders_needs_root) {
    node("/dev/qz/dmp/p0", 1);
    node("/dev/emcpowera", 2);
    node("/dev/sdq", 3);
    node("/dev/rdsk/c2t0d1", 4);
    node("/dev/sdq1", 5);
    node("/dev/rdsk/c2t0d1s2", 6);
    node("/dev/qz/dmp/p1.new", 7);
    node("/dev/loop0", 8);
    node("/dev/sdr", 9, S_IFCHR);
    EXPECT_EQ(names(), "p0 emcpowera sdq c2t0d1 ");
}

TEST_F(SeenDisks, are_one_disk_when_they_lead_to_one_device_needs_root) {
    node("/dev/qz/dmp/p0", 1);
    node("/dev/qz/rdmp/p0", 1);
    node("/dev/sdq", 1);
    const qz::Disks disks = qz::Disks::scan(state);
    ASSERT_EQ(disks.all().size(), 1U);
    const qz::Disk &disk = disks.all()[0];
    EXPECT_EQ(disk.block, "/dev/qz/dmp/p0");
    EXPECT_EQ(disk.raw, "/dev/qz/rdmp/p0");
    for (const char *name : {"p0", "sdq", "/dev/sdq", "/dev/qz/dmp/p0", "/dev/qz/rdmp/p0"}) {
        EXPECT_EQ(disks.find(name), &disk) << name;
    }
    EXPECT_EQ(disks.find(""), nullptr);
    EXPECT_EQ(disks.find("p1"), nullptr);
    EXPECT_THROW(disks.at("p1"), qz::Error);
}

TEST_F(SeenDisks, without_a_raw_twin_are_their_own_needs_root) {
    node("/dev/qz/dmp/p0", 1);
    node("/dev/rdsk/c2t0d1", 2);
    const qz::Disks disks = qz::Disks::scan(state);
    EXPECT_EQ(disks.at("p0").raw, "/dev/qz/dmp/p0");
    EXPECT_EQ(disks.at("c2t0d1").raw, "/dev/rdsk/c2t0d1");
}

TEST_F(SeenDisks, are_defined_and_online_under_any_of_their_names_needs_root) {
    node("/dev/sdq", 1);
    qz::define_disk("sdq");
    qz::online_disk("/dev/sdq");
    node("/dev/qz/dmp/p0", 1);  // a preferred name appears later
    const qz::Exclusive only;
    const qz::Disks disks = qz::Disks::scan(qz::load_state());
    EXPECT_TRUE(disks.at("p0").online);
    EXPECT_EQ(disks.at("p0").order, 1U);
}

TEST_F(SeenDisks, are_put_online_only_when_they_are_defined_needs_root) {
    node("/dev/sdq", 1);
    EXPECT_THROW(qz::online_disk("sdq"), qz::Error);
    EXPECT_THROW(qz::offline_disk("sdq"), qz::Error);
    EXPECT_THROW(qz::define_disk("sdr"), qz::Error);
    EXPECT_THROW(qz::define_disk(""), qz::Error);
    qz::define_disk("sdq");
    qz::online_disk("sdq");
    qz::define_disk("sdq");  // once more: it stays online
    const qz::Exclusive only;
    EXPECT_TRUE(qz::Disks::scan(qz::load_state()).at("sdq").online);
    qz::offline_disk("sdq");
    EXPECT_FALSE(qz::Disks::scan(qz::load_state()).at("sdq").online);
    qz::undefine_disk("sdq");
    EXPECT_TRUE(qz::load_state().disks.empty());
}

TEST_F(SeenDisks, of_an_imported_group_are_neither_put_offline_nor_forgotten_needs_root) {
    node("/dev/sdq", 1);
    qz::define_disk("sdq");
    qz::online_disk("sdq");
    const qz::Exclusive only;
    qz::State changed = qz::load_state();
    changed.groups["datadg"] = {"g1", {"/dev/sdq"}};
    qz::save_state(changed);
    EXPECT_THROW(qz::offline_disk("sdq"), qz::Error);
    EXPECT_THROW(qz::undefine_disk("sdq"), qz::Error);
    EXPECT_TRUE(qz::Disks::scan(qz::load_state()).at("sdq").online);
}

TEST(Renewed, group_has_new_ids_everywhere_and_keeps_its_volumes) {
    qz::Group like;
    like.name = "datadg";
    like.id = "g1";
    like.generation = 8;
    like.disks = {{"d1", "p0"}, {"d2", "p1"}};
    like.volumes = {{"vola", 1 << 20, 512, "ext4", {"d2", "d1"}}};
    like.sets = {{"one", {"vola"}}};
    std::vector<qz::Disk> disks(2);
    disks[0].name = "sdq";
    disks[1].name = "sdr";
    const qz::Group group = qz::renewed(like, disks);
    EXPECT_NE(group.id, like.id);
    EXPECT_EQ(group.generation, 1U);
    EXPECT_EQ(group.disks[1].name, "sdr");
    EXPECT_NE(group.disks[1].id, "d2");
    EXPECT_EQ(group.volumes[0].disks,
              (std::vector<std::string>{group.disks[1].id, group.disks[0].id}));
    EXPECT_EQ(group.sets[0].volumes, like.sets[0].volumes);
}

TEST(Renewed, group_needs_every_disk_of_its_volumes) {
    qz::Group like;
    like.disks = {{"d1", "p0"}};
    like.volumes = {{"vola", 1 << 20, 512, "", {"d2"}}};
    EXPECT_THROW(qz::renewed(like, std::vector<qz::Disk>(1)), qz::Error);
}

}  // namespace
