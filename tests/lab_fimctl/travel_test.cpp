// From the primary host to the backup host and back, with fimctl alone.
#include "tests/lab_fimctl/two_hosts.h"

namespace test {
namespace {

class FimctlTravel : public FimctlOnTwoHosts {
  protected:
    // Frozen on the primary, read on the backup host while the originals go on, and ended on both.
    void expect_a_whole_way(const std::string &options, const Words &names) {
        std::string paths;
        for (const std::string &name : names) paths += " /data/" + name;
        ASSERT_EQ(fim("freeze " + options + paths), "1");
        fim("export 1 --output /exchange/out");
        for (const std::string &name : names) change(name);
        read_there(names);
        on("client1");
        ASSERT_EQ(fim("import /exchange/back"), "1");
        fim("release 1");
        expect_nothing_left();
        for (const std::string &name : names)
            host("cmp /data/" + name + "/file6 /exchange/" + name);
        EXPECT_EQ(fim("list"), "no snapshots");
    }
    void read_there(const Words &names) {
        on("backup1");
        ASSERT_EQ(fim("import /exchange/out"), "1");
        const std::string copies = fim("mount 1");
        std::string expected;
        for (size_t i = 0; i < names.size(); ++i) {
            expected += (i == 0 ? "" : "\n") + folder(i);
            expect_as_frozen(names[i], folder(i));
            // What the original must still hold at the end.
            host("cp " + folder(i) + "/file6 /exchange/" + names[i]);
        }
        EXPECT_EQ(copies, expected);
        fim("release 1");
        expect_nothing_left();
        fim("export 1 --output /exchange/back");
    }
    static std::string folder(size_t number) {
        return "/var/lib/fimctl/mnt/client1-1-" + std::to_string(number + 1);
    }
};

TEST_F(FimctlTravel, two_volumes_of_a_group_are_imported_on_the_backup_host_needs_root) {
    make_group();
    ask_for_import();
    expect_a_whole_way(with_import, {"vol1", "vol2"});
    expect_established({"00A1", "00A2"});
}

TEST_F(FimctlTravel, two_volumes_of_a_group_are_cloned_on_the_backup_host_needs_root) {
    make_group();
    expect_a_whole_way("", {"vol1", "vol2"});
    expect_established({"00A1", "00A2"});
}

TEST_F(FimctlTravel, two_groups_and_a_plain_file_system_go_together_needs_root) {
    make_group();
    make_second_group();
    make_plain();
    ask_for_import();
    expect_a_whole_way(with_import, {"vol1", "log1", "plain", "vol2"});
    expect_established({"00A1", "00A2", "00A3", "00A4"});
}

TEST_F(FimctlTravel, a_plain_file_system_is_read_on_the_backup_host_needs_root) {
    make_plain();
    expect_a_whole_way("", {"plain"});
    expect_established({"00A3"});
}

TEST_F(FimctlTravel, the_snapshot_is_not_released_under_the_backup_needs_root) {
    make_group();
    ask_for_import();
    fim(std::string("freeze ") + with_import + " /data/vol1");
    fim("export 1 --output /exchange/out");
    on("backup1");
    fim("import /exchange/out");
    fim("mount 1");
    on("client1");
    EXPECT_EQ(try_fim("release 1").status, 2);
    EXPECT_EQ(try_fim("mount 1").status, 2);
    EXPECT_EQ(try_fim("import /exchange/out").status, 2);
    EXPECT_EQ(pair_state("00A1", "01A1"), 5);
    on("backup1");
    expect_as_frozen("vol1", "/var/lib/fimctl/mnt/client1-1-1");
    EXPECT_EQ(try_fim("import /exchange/out").status, 2);
    EXPECT_EQ(try_fim("export 1").status, 2);
    EXPECT_EQ(try_fim("mount 1").status, 2);
    fim("release 1");
    on("client1");
    // The document was lost: the operator knows that nobody will read the copy any more.
    fim("release 1 --abandoned");
    expect_nothing_left();
    expect_established({"00A1", "00A2"});
}

TEST_F(FimctlTravel, a_copy_in_use_stops_the_release_there_until_its_user_has_ended_needs_root) {
    make_group();
    ask_for_import();
    fim(std::string("freeze ") + with_import + " /data/vol1 /data/vol2");
    fim("export 1 --output /exchange/out");
    on("backup1");
    fim("import /exchange/out");
    fim("mount 1");
    host(
        "cd /var/lib/fimctl/mnt/client1-1-2 && (sleep 600 >/dev/null 2>&1 </dev/null & echo $! "
        ">/exchange/user)");
    const Told told = try_fim("release 1");
    EXPECT_EQ(told.status, 3);
    EXPECT_NE(told.text.find("fuser -vm /var/lib/fimctl/mnt/client1-1-2"), std::string::npos)
        << told.text;
    host("kill $(cat /exchange/user)");
    fim("release 1");
    expect_nothing_left();
    fim("export 1 --output /exchange/back");
    on("client1");
    fim("import /exchange/back");
    fim("release 1");
    expect_nothing_left();
    expect_established({"00A1", "00A2"});
}

TEST_F(FimctlTravel, a_backup_host_that_sees_the_primary_disk_imports_nothing_needs_root) {
    make_group();
    ask_for_import();
    fim(std::string("freeze ") + with_import + " /data/vol1");
    fim("export 1 --output /exchange/out");
    array("mask 000184500123 00A1 backup1 /dev/rdsk/c9t0d1");
    on("backup1");
    fim("import /exchange/out");
    const Told told = try_fim("mount 1");
    EXPECT_EQ(told.status, 1);
    EXPECT_NE(told.text.find("is visible on alternate backup client"), std::string::npos)
        << told.text;
    EXPECT_NE(told.text.find("the snapshot stays frozen"), std::string::npos) << told.text;
    array("unmask 000184500123 00A1 backup1");
    fim("mount 1");
    expect_as_frozen("vol1", "/var/lib/fimctl/mnt/client1-1-1");
    fim("release 1");
    expect_nothing_left();
}

}  // namespace
}  // namespace test
