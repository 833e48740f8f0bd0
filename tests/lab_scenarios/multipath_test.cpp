// Devices behind a multipath driver, and mirrors that a host sees through several paths or not at
// all.
#include "tests/lab_scenarios/scenario.h"

namespace test {
namespace {

const Source driver_node = {"ext4", "/dev/emcpowera", "/data", "/copy"};
const Source native_node = {"ext4", "/dev/emcpowerb", "/data", "/copy"};

class Multipath : public Scenario {
  protected:
    Multipath() : Scenario("multipath", {"client1", "backup1"}) {}
    void take_down(const std::string &path) { array("path down client1 " + path); }
    void bring_up(const std::string &path) { array("path up client1 " + path); }
    static std::string is_down(const std::string &path) {
        return "WARN: path " + path + " is down; errno=6 (No such device or address)";
    }
    void expect_no_path(const std::string &source) {
        const std::string before = picture();
        const Phase failed = phase({"freeze", "-", source, "/copy"});
        expect_failure(failed.at("freeze"), 7, "TimeFinder_freeze: No device available for use");
        EXPECT_FALSE(failed.at("freeze").handle);
        EXPECT_EQ(picture(), before);
    }
};

TEST_F(Multipath, first_path_is_used_while_it_is_up_needs_root) {
    make(driver_node);
    const Phase whole = expect_a_whole_snapshot(driver_node, "/dev/sdr");
    EXPECT_TRUE(whole.at("freeze").logged("\talternate port=/dev/sda"));
    EXPECT_FALSE(whole.at("freeze").logged("\talternate port=/dev/sdb"));
    EXPECT_EQ(in_text("text", "PMINFO-dev_raw_device"), "/dev/sda");
}

// The driver's node names the device towards the array, the native path is what is in the text.
TEST_F(Multipath, first_path_that_is_down_is_passed_over_needs_root) {
    make(driver_node);
    take_down("/dev/sda");
    const Phase whole = expect_a_whole_snapshot(driver_node, "/dev/sdr");
    EXPECT_TRUE(whole.at("freeze").logged("\talternate port=/dev/sda"));
    EXPECT_TRUE(whole.at("freeze").logged(is_down("/dev/sda")));
    EXPECT_TRUE(whole.at("freeze").logged("\talternate port=/dev/sdb"));
    EXPECT_TRUE(whole.at("freeze").logged("find_bcv_pair: Branching to powerpath"));
    EXPECT_EQ(in_text("text", "PMINFO-dev_raw_device"), "/dev/sdb");
    EXPECT_EQ(in_text("text", "PMINFO-p_dev_raw_device"), "/dev/emcpowera");
    EXPECT_EQ(in_text("text", "HDEF-dev_raw_device"), "/dev/emcpowera");
    EXPECT_EQ(in_text("text", "HDEF-dev_block_device"), "/dev/emcpowera");
}

TEST_F(Multipath, path_that_was_found_serves_the_next_processes_needs_root) {
    make(driver_node);
    const std::string before = sums("/data");
    take_down("/dev/sda");
    expect_all_succeed(
        phase({"freeze", "-", "/data", "/copy", "ctl", "4", "commit", "ckpt", "/exchange/text"}));
    change("/data");
    expect_all_succeed(
        phase({"rebuild", "/exchange/text", "volumes", "ckpt", "/exchange/mounted"}));
    EXPECT_EQ(in_text("mounted", "PMINFO-p_dev_raw_device"), "/dev/sdb");
    EXPECT_EQ(sums("/copy"), before);
    const Phase released = phase(
        {"rebuild", "/exchange/mounted", "thaw", "run", sound("ext4", "/dev/sdr"), "thaw_commit"});
    expect_all_succeed(released);
    array("clock advance 60");
    EXPECT_EQ(pair_state(), 2);
    expect_nothing_left("/copy");
}

TEST_F(Multipath, no_snapshot_is_begun_with_all_paths_down_needs_root) {
    make(driver_node);
    take_down("/dev/sda");
    take_down("/dev/sdb");
    expect_no_path("/data");
    expect_no_path("/dev/emcpowera");
    bring_up("/dev/sdb");
    expect_a_whole_snapshot(driver_node, "/dev/sdr");
}

// The device's own name is a native path here. It counts when no alternate port can be opened.
TEST_F(Multipath, own_path_serves_when_no_alternate_port_is_up_needs_root) {
    make(native_node);
    take_down("/dev/sdd");
    const Words snapshot = {"freeze", "-",    "/data",          "/copy", "ctl",        "4",
                            "commit", "ckpt", "/exchange/text", "thaw",  "thaw_commit"};
    expect_all_succeed(phase(snapshot));
    EXPECT_EQ(in_text("text", "PMINFO-dev_raw_device"), "/dev/sdc");
    take_down("/dev/sdc");
    array("clock advance 60");
    expect_no_path("/data");
    bring_up("/dev/sdd");
    expect_all_succeed(phase(snapshot));
    EXPECT_EQ(in_text("text", "PMINFO-dev_raw_device"), "/dev/sdd");
}

// A port that can be opened comes before the mirror's own name, whether that can be opened or not.
TEST_F(Multipath, mirror_is_read_through_the_path_that_is_up_needs_root) {
    make(driver_node);
    take_down("/dev/sdq");
    const Phase by_port = expect_a_whole_snapshot(driver_node, "/dev/sdr");
    EXPECT_TRUE(by_port.at("freeze").logged(is_down("/dev/sdq")));
    EXPECT_EQ(in_text("text", "PMINFO-bcv_raw_device"), "/dev/sdr");
    bring_up("/dev/sdq");
    take_down("/dev/sdr");
    expect_a_whole_snapshot(driver_node, "/dev/sdq");
    EXPECT_EQ(in_text("text", "PMINFO-bcv_raw_device"), "/dev/sdq");
}

// The snapshot is taken all the same: it is for another host, which sees the mirror.
TEST_F(Multipath, mirror_that_the_host_does_not_see_is_read_on_another_needs_root) {
    make(native_node);
    const std::string before = sums("/data");
    const Phase taken =
        phase({"freeze", "-", "/data", "/copy", "ctl", "4", "run", "fsfreeze -f /data", "commit",
               "run", "fsfreeze -u /data", "ckpt", "/exchange/text", "volumes"});
    for (const char *step : {"freeze", "ctl", "commit", "ckpt"}) expect_success(taken.at(step));
    EXPECT_TRUE(taken.at("freeze").logged(
        "WARN : The BCV pair of the primary device /dev/emcpowerb is not visible on this host"));
    EXPECT_EQ(in_text("text", "PMINFO-bcv_raw_device"), "/dev/sdX");
    expect_failure(
        taken.at("volumes"), 3,
        "set_owner_ids: Cannot chown /dev/sdX to uid=0, gid=0: No such file or directory");
    change("/data");
    const Phase here = phase({"rebuild", "/exchange/text", "volumes"});
    expect_success(here.at("rebuild"));
    EXPECT_TRUE(
        here.at("rebuild").logged("TimeFinder_rebuild: BCV <--> SYMID: /dev/rdsk/cXtXdX : 01A2"));
    expect_failure(
        here.at("volumes"), 3,
        "set_owner_ids: Cannot chown /dev/rdsk/cXtXdX to uid=0, gid=0: No such file or directory");
    EXPECT_EQ(host("grep /copy /proc/self/mounts; true"), "");

    host("sed '1i HDEF-is_tgt=1' /exchange/text >/exchange/there");
    on("backup1");
    host("mkdir /copy");
    expect_all_succeed(
        phase({"rebuild", "/exchange/there", "volumes", "ckpt", "/exchange/mounted"}));
    EXPECT_EQ(sums("/copy"), before);
    host("sed -i '1i HDEF-is_tgt=1' /exchange/mounted");
    expect_all_succeed(phase({"rebuild", "/exchange/mounted", "thaw"}));
    expect_sound("ext4", "/dev/rdsk/c2t0d2");

    on("client1");
    expect_all_succeed(phase({"rebuild", "/exchange/text", "thaw", "thaw_commit"}));
    array("clock advance 60");
    EXPECT_EQ(pair_state("00A2", "01A2"), 2);
    EXPECT_EQ(counter_files(), "");
}

}  // namespace
}  // namespace test
