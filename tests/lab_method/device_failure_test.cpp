// Devices that the method cannot take a copy of.
#include "tests/support/world.h"

namespace test {
namespace {

class DeviceInTheLab : public World {
  protected:
    // Gives the host one more device of the array, as /dev/qz/dmp/NAME.
    void add_device(const std::string &device, const std::string &name) {
        array("device create 000184500123 " + device + " --size 64M");
        array("group add 000184500123 othergroup " + device);
        array("mask 000184500123 " + device + " client1 /dev/qz/dmp/" + name + " /dev/qz/rdmp/" +
              name);
    }
    void add_bcv(const std::string &device, const std::string &bcv, const std::string &group,
                 const std::string &label, const std::string &options) {
        array("device create 000184500123 " + bcv + " --size 64M --bcv");
        array("group add 000184500123 " + group + " " + bcv);
        if (!label.empty()) array("label 000184500123 " + bcv + " " + label);
        array("pair 000184500123 " + device + " " + bcv + options);
    }
    Phase expect_freeze_fails(const std::string &source, int number, const std::string &text) {
        const std::string before = picture();
        Phase failed = phase({"freeze", "-", source, "/copy", "rollback"});
        expect_failure(failed.at("freeze"), number, text);
        if (failed.at("freeze").handle) {
            expect_success(failed.at("thaw"));
            expect_success(failed.at("thaw_commit"));
        }
        EXPECT_EQ(picture(), before);
        return failed;
    }
};

TEST_F(DeviceInTheLab, without_a_bcv_cannot_be_frozen_and_with_one_can_needs_root) {
    mount_source();
    add_device("00B1", "p1");
    const Phase failed =
        expect_freeze_fails("/dev/qz/dmp/p1", 10,
                            "find_bcv_pair: Device /dev/qz/rdmp/p1 is not a member of a BCV pair");
    EXPECT_TRUE(failed.at("freeze").handle);
    add_bcv("00B1", "01B1", "othergroup", "TSR-BCV", "");
    expect_a_snapshot_succeeds("/dev/qz/dmp/p1");
}

// The labelled one belongs to another group, so the unlabelled one would be the only choice.
TEST_F(DeviceInTheLab, with_an_unlabelled_bcv_cannot_be_frozen_while_labels_are_in_use_needs_root) {
    mount_source();
    add_device("00C1", "p2");
    add_bcv("00C1", "01C1", "othergroup", "SPARE", " --synchronised");
    add_bcv("00C1", "01C2", "thirdgroup", "TSR-BCV", "");
    array("clock advance 60");
    const Phase failed =
        expect_freeze_fails("/dev/qz/dmp/p2", 10,
                            "find_bcv_pair: Device /dev/qz/rdmp/p2 is not a member of a BCV pair");
    EXPECT_TRUE(failed.at("freeze").handle);
    EXPECT_TRUE(
        failed.at("freeze").logged("find_valid_bcv: This BCV does not have TSR-BCV label: SPARE"));
    EXPECT_EQ(pair_state("00C1", "01C1"), 2);
    array("label 000184500123 01C1 TSR-BCV");
    expect_a_snapshot_succeeds("/dev/qz/dmp/p2");
}

// A split one without label is chosen for want of another, but never queued to be established.
TEST_F(DeviceInTheLab,
       with_a_split_unlabelled_bcv_cannot_be_committed_while_labels_are_in_use_needs_root) {
    mount_source();
    add_device("00C1", "p2");
    add_bcv("00C1", "01C1", "othergroup", "SPARE", "");
    add_bcv("00C1", "01C2", "thirdgroup", "TSR-BCV", "");
    const std::string before = picture();
    const Phase failed =
        phase({"freeze", "-", "/dev/qz/dmp/p2", "/copy", "ctl", "4", "commit", "rollback"});
    expect_success(failed.at("freeze"));
    EXPECT_EQ(failed.at("ctl").log, Words());
    expect_failure(failed.at("commit"), 11,
                   "emc_tf_split_prepare: Device /dev/qz/rdmp/p2 cannot be split at freeze; "
                   "bcv_pair_state=5");
    expect_success(failed.at("thaw"));
    expect_success(failed.at("thaw_commit"));
    EXPECT_EQ(picture(), before);
    array("label 000184500123 01C1 TSR-BCV");
    expect_a_snapshot_succeeds("/dev/qz/dmp/p2");
}

TEST_F(DeviceInTheLab, that_is_a_split_bcv_itself_has_no_bcv_needs_root) {
    mount_source();
    array("unmask 000184500123 01A1 client1");
    array("mask 000184500123 01A1 client1 /dev/qz/dmp/m1 /dev/qz/rdmp/m1");
    expect_freeze_fails("/dev/qz/dmp/m1", 10,
                        "find_bcv_pair: Device /dev/qz/rdmp/m1 is not a member of a BCV pair");
    expect_a_snapshot_succeeds();
}

TEST_F(DeviceInTheLab, that_is_no_device_of_an_array_cannot_be_locked_needs_root) {
    mount_source();
    host("for d in dmp rdmp; do mknod /dev/qz/$d/local b 7 99; done");
    const Phase failed = expect_freeze_fails(
        "/dev/qz/dmp/local", 3, "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/local");
    EXPECT_TRUE(failed.at("freeze").logged_part("do_cmd: Command failed with status=1: "));
    EXPECT_TRUE(failed.at("freeze").logged_part(
        "/dev/qz/rdmp/local: SymPdevShow answers 203 (This host sees no device of an array"));
    expect_a_snapshot_succeeds();
}

TEST_F(DeviceInTheLab, under_a_path_in_memory_cannot_be_told_from_a_volume_needs_root) {
    mount_source();
    expect_freeze_fails("/exchange", 3,
                        "TimeFinder_freeze: Cannot determine if device tmpfs is a volume");
    expect_a_snapshot_succeeds();
}

TEST_F(DeviceInTheLab, under_a_path_that_is_not_there_has_no_status_needs_root) {
    mount_source();
    expect_freeze_fails(
        "/no/such/path", 3,
        "TimeFinder_freeze: Cannot stat() file /no/such/path: No such file or directory");
    expect_a_snapshot_succeeds();
}

TEST_F(DeviceInTheLab, under_a_plain_short_name_cannot_be_told_from_a_volume_needs_root) {
    mount_source();
    expect_freeze_fails("/dev/sdq", 3,
                        "TimeFinder_freeze: Cannot determine if device /dev/sdq is a volume");
    expect_a_snapshot_succeeds();
}

}  // namespace
}  // namespace test
