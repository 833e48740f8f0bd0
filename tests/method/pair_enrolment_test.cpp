#include "method/pair_discovery.h"

#include "include/timefinder.h"
#include "method/pair_index.h"
#include "tests/method/pair_fixture.h"

namespace {

using test::primary_path;
using test::symid;

// What follows once the BCV is known: the wait, the full establish and the batch table.
class PairEnrolment : public test::PairFixture {
  protected:
    const std::string already_established = "device /dev/rdsk/c1t0d0s2 already established";
};

TEST_F(PairEnrolment, a_failed_wait_is_passed_on_and_noted) {
    set_level(0);
    array.script("SymDevSync", {4});
    EXPECT_EQ(discover(), 11);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymDevSync on device 00B1 failed with "
                   "code 4 (array error 4)");
    EXPECT_EQ(whole_log(), std::string(errmsg) + "\nwait_for_establish failed\n");
}

TEST_F(PairEnrolment, a_bcv_that_vanishes_during_the_wait_is_error_10) {
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymDevSync")) primary->record.bcv_count = 0;
    };
    EXPECT_EQ(discover(), 11);
    expect_failure(10, "find_bcv_info: Cannot find BCV 00B1 for disk 00A1 in group DG");
    EXPECT_TRUE(logged("wait_for_establish failed"));
}

TEST_F(PairEnrolment, with_sync_at_start_0_and_nothing_to_establish_nothing_is_enrolled) {
    tf::put(bcv->record.ldevname, "OTHER");
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 0);
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(PairEnrolment, a_pair_that_is_to_be_established_is_enrolled_with_sync_at_start_0) {
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 1);
    ASSERT_EQ(prim_mir_info_size, 1);
    EXPECT_EQ(primmirlist[0], pm);
}

TEST_F(PairEnrolment, with_sync_at_start_1_every_pair_that_is_not_synchronised_is_enrolled) {
    object->sync_at_start = 1;
    tf::put(bcv->record.ldevname, "OTHER");
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 1);
}

TEST_F(PairEnrolment, with_sync_at_start_1_a_synchronised_pair_is_noted_and_not_enrolled) {
    set_level(0);
    object->sync_at_start = 1;
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_EQ(whole_log(), "device /dev/rdsk/c1t0d0s2 already established\n");
}

TEST_F(PairEnrolment, the_state_that_counts_is_the_one_after_the_wait) {
    object->sync_at_start = 1;
    array.set_state(symid, "00A1", 1);
    test::on_sleep([this](unsigned) { array.set_state(symid, "00A1", 2); });
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_TRUE(logged("device /dev/rdsk/c1t0d0s2 already established"));
}

TEST_F(PairEnrolment, a_full_establish_is_issued_and_the_pair_is_read_again) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymLdevBcvControl")) array.set_state(symid, "00A1", 2);
    };
    EXPECT_EQ(discover(), 0);
    EXPECT_TRUE(logged("Issuing full establish..."));
    const std::string path = primary_path;
    const std::vector<std::string> expected = {
        "SymPdevSync " + path + " 1",
        "SymPdevShow " + path,
        "SymDevShow 000184500123 00B1",
        "SymDevShow 000184500123 00B1",
        "SymLdevBcvControl DG DEV00A1 action 1 option 0x0",
        "SymPdevSync " + path + " 1",
        "SymPdevShow " + path,
        "SymDevShow 000184500123 00B1",
        "SymDevShow 000184500123 00B1",
        "SymDevShow 000184500123 00B1",
        "SymDevSync 000184500123 00B1 2 0",
        "SymPdevShow " + path,
    };
    EXPECT_EQ(array.calls, expected);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(PairEnrolment, a_pair_that_a_full_establish_leaves_split_is_enrolled) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(array.calls_of("SymLdevBcvControl").size(), 1U);
    EXPECT_EQ(pm->sync_at_end, 1);
    ASSERT_EQ(prim_mir_info_size, 1);
    EXPECT_EQ(primmirlist[0], pm);
    EXPECT_FALSE(logged(already_established));
}

TEST_F(PairEnrolment, a_pair_that_is_synchronised_behind_a_full_establish_and_a_wait_is_not) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymLdevBcvControl")) array.set_state(symid, "00A1", 1);
    };
    test::on_sleep([this](unsigned) { array.set_state(symid, "00A1", 2); });
    EXPECT_EQ(discover(), 0);
    EXPECT_TRUE(logged(already_established));
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 0);
}

// Whether there is something to establish is what the choice behind the full establish says.
TEST_F(PairEnrolment, the_choice_that_counts_is_the_one_after_a_full_establish) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    const char *label = "OTHER";
    array.on_call = [this, &label](const std::string &line) {
        if (line.starts_with("SymLdevBcvControl")) tf::put(bcv->record.ldevname, label);
    };
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(prim_mir_info_size, 0) << "no longer labelled";
    label = "TSR-BCV";
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(prim_mir_info_size, 1) << "labelled by then";
}

TEST_F(PairEnrolment, a_synchronised_pair_is_not_fully_established_but_resynchronised_at_the_end) {
    object->sync_at_start = 2;
    EXPECT_EQ(discover(), 0);
    EXPECT_TRUE(array.calls_of("SymLdevBcvControl").empty());
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_FALSE(logged("Issuing full establish..."));
}

TEST_F(PairEnrolment, a_restored_pair_is_fully_established) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 8);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(array.calls_of("SymLdevBcvControl").size(), 1U);
}

TEST_F(PairEnrolment, a_full_establish_is_tried_without_a_bcv_too) {
    object->sync_at_start = 2;
    primary->record.bcv_count = 0;
    EXPECT_EQ(discover(), 11);
    EXPECT_EQ(array.calls_of("SymLdevBcvControl").size(), 1U);
    EXPECT_EQ(errnum, 10);
    EXPECT_EQ(pm->sync_at_end, 1);
}

TEST_F(PairEnrolment, without_a_full_establish_the_control_is_not_called) {
    for (const int32_t sync : {0, 1}) {
        object->sync_at_start = sync;
        array.set_state(symid, "00A1", 5);
        discover();
    }
    EXPECT_TRUE(array.calls_of("SymLdevBcvControl").empty());
}

TEST_F(PairEnrolment, a_failed_full_establish_is_error_8) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.script("SymLdevBcvControl", {33});
    EXPECT_EQ(discover(), 11);
    expect_failure(8, call_failure("SymLdevBcvControl", primary_path, 33));
    EXPECT_EQ(pm->sync_at_end, 1);
}

TEST_F(PairEnrolment, a_failed_refresh_after_a_full_establish_is_error_3) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.script_call("SymPdevSync", 2, 5);
    EXPECT_EQ(discover(), 11);
    expect_failure(3, call_failure("SymPdevSync", primary_path, 5));
}

TEST_F(PairEnrolment, a_failed_show_after_a_full_establish_is_error_8) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.script_call("SymPdevShow", 2, 6);
    EXPECT_EQ(discover(), 11);
    expect_failure(8, call_failure("SymPdevShow", primary_path, 6));
}

TEST_F(PairEnrolment, a_failed_choice_after_a_full_establish_is_passed_on) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.script_call("SymDevShow", 3, 9);
    EXPECT_EQ(discover(), 11);
    EXPECT_EQ(errnum, 3);
    EXPECT_TRUE(std::string(errmsg).starts_with("find_valid_bcv: "));
}

TEST_F(PairEnrolment, a_device_seen_under_two_paths_is_enrolled_once) {
    array.set_state(symid, "00A1", 5);
    tf::put(primary->record.ports[primary->record.port_count++], "/dev/rdsk/c2t0d0s2");
    EXPECT_EQ(discover(), 0);
    pm = object.add_device("/dev/rdsk/c2t0d0s2");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 1);
    EXPECT_EQ(primmirlist[0], object->pminfo_list);
    expect_no_failure();
}

// Names of mirrors have four characters in the record, and the record's name is what is asked for
// from then on.
class LongBcvName : public PairEnrolment {
  protected:
    LongBcvName() {
        primary->record.bcv_count = 0;
        array.pair(*primary, array.add_bcv(symid, "00B1LONG", "/dev/sdz"), 2);
    }
};

TEST_F(LongBcvName, is_cut_so_that_the_wait_does_not_find_the_mirror) {
    EXPECT_EQ(discover(), 11);
    EXPECT_STREQ(pm->bcvdev_sym_devname, "00B1");
    const std::vector<std::string> shows = {"SymDevShow 000184500123 00B1LONG",
                                            "SymDevShow 000184500123 00B1LONG",
                                            "SymDevShow 000184500123 00B1"};
    EXPECT_EQ(array.calls_of("SymDevShow"), shows);
    EXPECT_EQ(bcv_paths(), "/dev/sdq /dev/sdq /dev/sdq") << "of the mirror with the short name";
    expect_failure(10, "find_bcv_info: Cannot find BCV 00B1 for disk 00A1 in group DG");
    EXPECT_EQ(test::log_lines().back(), "wait_for_establish failed");
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(LongBcvName, is_an_error_at_once_where_the_array_does_not_know_the_short_one) {
    array.script_call("SymDevShow", 3, 28);
    EXPECT_EQ(discover(), 11);
    EXPECT_STREQ(pm->bcvdev_sym_devname, "00B1");
    expect_failure(3, call_failure("SymDevShow", "00B1", 28));
    EXPECT_FALSE(logged("wait_for_establish failed"));
}

// Pairs on several arrays, each under the host path of its primary's name.
class SecondBatch : public PairEnrolment {
  protected:
    static std::string path_of(const std::string &name) { return "/dev/rdsk/" + name; }
    void add_pair(const std::string &array_id, const std::string &name) {
        test::FakeDevice &added = array.add_primary(array_id, name, path_of(name));
        array.pair(added, array.add_bcv(array_id, "B" + name.substr(1), "/dev/sdq"), 5);
    }
    // Discovers the pair for a record of its own.
    prim_mir_info *freeze(const std::string &name) {
        pm = object.add_device(path_of(name));
        EXPECT_EQ(discover(), 0);
        return pm;
    }
};

// The control code sorts the table in place and empties it by its count alone: what still stands
// in it must not count as enrolled, be it at a new place or, like the last one here, at its old.
TEST_F(SecondBatch, takes_devices_of_the_first_one_again) {
    add_pair("000184500300", "X001");
    add_pair("000184500100", "Y001");
    add_pair("000184500200", "Z001");
    add_pair("000184500500", "V001");
    add_pair("000184500400", "W001");
    prim_mir_info *const x = freeze("X001"), *const y = freeze("Y001");
    prim_mir_info *const z = freeze("Z001"), *const v = freeze("V001");
    EXPECT_EQ(prim_mir_info_size, 4);
    EXPECT_EQ(TimeFinder_ctl(object.get(), 4), 0);
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_EQ(primmirlist[0], y);
    EXPECT_EQ(primmirlist[1], z);
    EXPECT_EQ(primmirlist[2], x);
    EXPECT_EQ(primmirlist[3], v);

    array.set_state("000184500300", "X001", 5);
    array.set_state("000184500500", "V001", 5);
    const prim_mir_info *const w = freeze("W001"), *const x_again = freeze("X001");
    const prim_mir_info *const v_again = freeze("V001");
    ASSERT_EQ(prim_mir_info_size, 3);
    EXPECT_EQ(primmirlist[0], w);
    EXPECT_EQ(primmirlist[1], x_again);
    EXPECT_EQ(primmirlist[2], v_again);
    freeze("X001");
    EXPECT_EQ(prim_mir_info_size, 3) << "each of them once";
    expect_no_failure();
}

// The batch table with that many entries of other devices.
class FullTable : public PairEnrolment {
  protected:
    void fill(int32_t count) {
        others.resize(static_cast<size_t>(count));
        for (prim_mir_info &other : others) {
            char name[8];
            snprintf(name, sizeof name, "%04x", 0x8000 + prim_mir_info_size);
            tf::put(other.dev_sym_devname, name);
            prim_mir_info_size = tf::append_pair(&other, prim_mir_info_size);
        }
        array.set_state(symid, "00A1", 5);
    }
    ~FullTable() override { tf::clear_pairs(); }
    std::vector<prim_mir_info> others;
};

TEST_F(FullTable, the_2046th_device_is_enrolled) {
    fill(2045);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(prim_mir_info_size, 2046);
}

TEST_F(FullTable, the_2047th_device_fails_while_the_message_names_2048) {
    fill(2046);
    EXPECT_EQ(discover(), 11);
    expect_failure(7, "find_bcv_pair: Too many devices : 2047 (max 2048)");
    EXPECT_EQ(prim_mir_info_size, 2047);
    EXPECT_EQ(primmirlist[2046], pm);
}

TEST_F(FullTable, whoever_goes_on_after_the_error_writes_no_slot_that_is_not_there) {
    fill(2048);
    for (int32_t count = 2049; count < 2052; ++count) {
        EXPECT_EQ(discover(), 11);
        expect_failure(
            7, "find_bcv_pair: Too many devices : " + std::to_string(count) + " (max 2048)");
    }
    EXPECT_EQ(primmirlist[2047], &others[2047]);
}

TEST_F(FullTable, a_listed_device_is_no_error_in_a_full_table) {
    fill(2046);
    tf::put(others[2000].dev_sym_devname, "00A1");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(prim_mir_info_size, 2046);
}

}  // namespace
