// Devices behind several paths, some of which are down, and mirrors that a host does not see.
#include "conformance/contract.h"

namespace conformance {
namespace {

// /dev/emcpowera: the driver's node, native paths /dev/sda and /dev/sdb; its mirror is seen as
// /dev/sdq and /dev/sdr. /dev/emcpowerb: native paths /dev/sdc, which is the device's own name, and
// /dev/sdd; its mirror is not seen here.
class Paths : public Contract {
  protected:
    Paths() : Contract("multipath", {"client1"}) {}
    void furnish() override {
        array("establish --full 000184500123 00A1 01A1 00A2 01A2");
        array("clock advance 60");
    }
    static Words frozen(const std::string &node) { return freeze("-", "/dev/" + node); }
    void down(const std::string &path) { array("path down client1 " + path); }
    void up(const std::string &path) { array("path up client1 " + path); }
};

TEST_F(Paths, behind_a_driver_are_named_by_its_node_and_by_a_native_path) {
    contract(
        "freeze: p_dev_raw_device keeps the driver's node, dev_raw_device names a native path");
    const Phase seen = run(frozen("emcpowera") + record() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.p_dev_raw_device", "/dev/emcpowera");
    field_is(seen.at("whole_record"), "pm.dev_raw_device", "/dev/sda");
    field_is(seen.at("whole_record"), "dev_raw_device", "/dev/emcpowera");
    logs(seen.at("freeze"), "find_bcv_pair: Branching to powerpath");
}

TEST_F(Paths, that_are_down_are_passed_over) {
    contract("freeze: the first alternate port that is active becomes the device's path");
    down("/dev/sda");
    const Phase seen = run(frozen("emcpowera") + record() + release());
    up("/dev/sda");
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.dev_raw_device", "/dev/sdb");
    logs(seen.at("freeze"), "WARN: path /dev/sda is down; errno=6 (No such device or address)");
}

TEST_F(Paths, that_are_all_down_end_the_freeze_with_7_and_a_null_handle) {
    contract("freeze: \"%s: No device available for use\", number 7, the common failure exit");
    down("/dev/sda");
    down("/dev/sdb");
    const Phase seen = run(Words{"foreign_handle"} + frozen("emcpowera"));
    up("/dev/sda");
    up("/dev/sdb");
    fails(seen.at("freeze"), 7, "TimeFinder_freeze: No device available for use");
    handle_is(seen.at("freeze"), false);
}

TEST_F(Paths, of_the_devices_own_name_serve_when_no_port_is_up) {
    contract("freeze: the device's own host path counts when it is active");
    down("/dev/sdd");
    const Phase seen = run(frozen("emcpowerb") + record() + release());
    up("/dev/sdd");
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.dev_raw_device", "/dev/sdc");
}

TEST_F(Paths, of_a_mirror_are_tried_port_by_port) {
    contract("pair discovery: the first active alternate port replaces the mirror's name");
    const Phase first = run(frozen("emcpowera") + record() + release());
    field_is(first.at("whole_record"), "pm.bcv_raw_device", "/dev/sdr");
    down("/dev/sdr");
    const Phase second = run(frozen("emcpowera") + record() + release());
    up("/dev/sdr");
    field_is(second.at("whole_record"), "pm.bcv_raw_device", "/dev/sdq");
}

TEST_F(Paths, of_a_mirror_that_is_not_seen_have_a_placeholder_and_the_snapshot_goes_on) {
    contract("pair discovery: an empty name becomes /dev/sdX, with a warning");
    const Phase seen = run(frozen("emcpowerb") + record() + commit() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.bcv_raw_device", "/dev/sdX");
    field_is(seen.at("whole_record"), "pm.bcv_block_device", "/dev/sdX");
    logs(seen.at("freeze"),
         "WARN : The BCV pair of the primary device /dev/emcpowerb is not visible on this host");
}

TEST_F(Paths, of_a_mirror_that_is_not_seen_have_another_placeholder_after_a_rebuild) {
    contract("rebuild: an empty name becomes /dev/rdsk/cXtXdX");
    run(frozen("emcpowerb") + commit() + ckpt());
    const Phase seen = run(rebuild() + record() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.bcv_raw_device", "/dev/rdsk/cXtXdX");
}

}  // namespace
}  // namespace conformance
