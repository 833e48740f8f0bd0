#include "method/thaw_commit.h"

#include "tests/method/thaw_commit_fixture.h"

namespace {

using test::array_1;
using test::array_2;

class ThawCommit : public test::ThawCommitTest {};

TEST_F(ThawCommit, null_handle_is_reported_and_does_not_count) {
    EXPECT_EQ(TimeFinder_thaw_commit(nullptr), 11);
    expect_failure(7, "TimeFinder_thaw_commit: A required parameter is NULL: fih");
    EXPECT_EQ(thaw_commit_vols, 0);
}

TEST_F(ThawCommit, third_of_three_objects_establishes_every_pair) {
    total_freeze_volumes = 3;
    hdef *objects[] = {new_split_device("00A1", "01A1"), new_split_device("00A2", "01A2"),
                       new_split_device("00A3", "01A3", array_2)};
    give_transfer_file(objects[0], "/tmp/EMCTXfirst");
    give_transfer_file(objects[2], "/tmp/EMCTXlast");
    EXPECT_EQ(TimeFinder_thaw_commit(objects[0]), 0);
    EXPECT_EQ(TimeFinder_thaw_commit(objects[1]), 0);
    EXPECT_EQ(array.calls, test::Lines{});
    EXPECT_EQ(whole_log(), "");
    EXPECT_EQ(thaw_commit_vols, 2);
    EXPECT_TRUE(has_no_capture_files(objects[0]));

    EXPECT_EQ(TimeFinder_thaw_commit(objects[2]), 0);
    EXPECT_EQ(controls(),
              (test::Lines{"SymDevListBcvControl 000184500001 2 [00A2,00A1] [01A2,01A1] action 3 "
                           "option 0x400000 0",
                           "SymDevListBcvControl 000184500002 1 [00A3] [01A3] action 3 option "
                           "0x400000 0"}));
    EXPECT_EQ(whole_log(),
              "Adding <00A3, 01A3> to resync list\n"
              "Adding <00A2, 01A2> to resync list\n"
              "Adding <00A1, 01A1> to resync list\n"
              "Total BCVs to resync : 3\n"
              "Resync started ...\n"
              "Resync end\n");
    EXPECT_TRUE(test::exists("/tmp/EMCTXfirst"));
    EXPECT_FALSE(test::exists("/tmp/EMCTXlast"));
    EXPECT_STREQ(objects[2]->transfer_file, "");
    EXPECT_EQ(sH, 7);
    expect_no_failure();
}

TEST_F(ThawCommit, releases_before_5_get_no_option) {
    array.version = 0x04FF0000;
    emc_tf_SymVersion = 0x04FF;
    EXPECT_EQ(TimeFinder_thaw_commit(new_split_device("00A1", "01A1")), 0);
    ASSERT_EQ(controls().size(), 1U);
    EXPECT_TRUE(controls()[0].ends_with("action 3 option 0x0 0"));
}

TEST_F(ThawCommit, pair_that_is_established_is_not_listed) {
    hdef *h = new_split_device("00A1", "01A1", array_1, 2);
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(whole_log(), "device /dev/qz/rdmp/p00A11 already established\n");
    EXPECT_EQ(controls(), test::Lines{});
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(ThawCommit, pair_that_began_to_synchronise_behind_the_wait_is_not_listed) {
    hdef *h = new_split_device("00A1", "01A1");
    set_state_at("SymDevSync", 2, "00A1", 1);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(whole_log(), "device /dev/qz/rdmp/p00A11 already established\n");
    EXPECT_EQ(controls(), test::Lines{});
}

TEST_F(ThawCommit, pairs_in_every_other_state_are_listed) {
    hdef *h = new_device();
    add_pair(h, array_1, "00A1", "01A1", "/dev/p1", 5);
    add_pair(h, array_1, "00A2", "01A2", "/dev/p2", 8);
    add_pair(h, array_1, "00A3", "01A3", "/dev/p3", 3);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_TRUE(logged("Total BCVs to resync : 3"));
}

TEST_F(ThawCommit, synchronising_pair_is_waited_for_first) {
    hdef *h = new_split_device("00A1", "01A1", array_1, 1);
    test::on_sleep([this](unsigned) { array.set_state(array_1, "00A1", 2); });
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    test::on_sleep(nullptr);
    EXPECT_EQ(test::sleeps(), std::vector<unsigned>{1});
    EXPECT_TRUE(logged("device /dev/qz/rdmp/p00A11 already established"));
}

TEST_F(ThawCommit, pair_that_is_not_to_be_resynchronised_is_not_looked_at) {
    hdef *h = new_split_device("00A1", "01A1");
    h->pminfo_list->sync_at_end = 0;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(array.calls_of("SymDevSync"), test::Lines{});
    EXPECT_EQ(controls(), test::Lines{});
}

// Only the device name is compared.
TEST_F(ThawCommit, of_two_primaries_of_one_name_on_two_arrays_only_the_first_is_resynchronised) {
    total_freeze_volumes = 1;
    new_split_device("00A1", "01A1", array_1);
    hdef *newest = new_split_device("00A1", "01B1", array_2);
    EXPECT_EQ(TimeFinder_thaw_commit(newest), 0);
    EXPECT_EQ(controls(), test::Lines{"SymDevListBcvControl 000184500002 1 [00A1] [01B1] action 3 "
                                      "option 0x400000 0"});
    EXPECT_EQ(array.state(array_1, "00A1"), 5);
    EXPECT_EQ(times_logged("Total BCVs to resync : 1"), 1);
}

TEST_F(ThawCommit, nothing_to_resynchronise_deletes_the_transfer_file) {
    hdef *h = new_device();
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(controls(), test::Lines{});
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
    EXPECT_STREQ(h->transfer_file, "");
}

TEST_F(ThawCommit, failed_control_call_is_the_status_and_keeps_the_transfer_file) {
    hdef *h = new_split_device("00A1", "01A1");
    give_transfer_file(h, "/tmp/EMCTXtest");
    array.script("SymDevListBcvControl", {55});
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(7,
                   "emc_tf_bcv_control_all: SymAPI call to SymDevListBcvControl to establish BCV "
                   "failed with code: 55 (array error 55)");
    EXPECT_TRUE(logged("Resync end"));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
}

// Failures inside the walk.

TEST_F(ThawCommit, failed_wait_ends_the_walk) {
    hdef *h = new_split_device("00A1", "01A1");
    h->pminfo_list->lock_set = 1;
    array.script("SymDevSync", {66});
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymDevSync on device 01A1 failed with code "
                   "66 (array error 66)");
    EXPECT_EQ(test::log_lines().back(), "split_device failed");
    EXPECT_EQ(h->pminfo_list->lock_set, 1);
    EXPECT_EQ(controls(), test::Lines{});
}

TEST_F(ThawCommit, failed_refresh_ends_the_walk) {
    hdef *h = new_split_device("00A1", "01A1");
    array.script_call("SymDevSync", 2, 66);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3,
                   "emc_tf_establish_prepare: SymAPI call to SymDevSync on device 01A1 failed with "
                   "code 66 (array error 66)");
    EXPECT_EQ(test::log_lines().back(), "split_device failed");
}

TEST_F(ThawCommit, failed_look_at_the_primary_ends_the_walk) {
    hdef *h = new_split_device("00A1", "01A1");
    array.script_call("SymPdevShow", 2, 66);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3,
                   "emc_tf_establish_prepare: SymAPI call to SymPdevShow on device "
                   "/dev/qz/rdmp/p00A11 failed with code 66 (array error 66)");
    EXPECT_EQ(test::log_lines().back(), "split_device failed");
}

TEST_F(ThawCommit, mirror_that_vanished_behind_the_wait_ends_the_walk) {
    hdef *h = new_split_device("00A1", "01A1");
    array.on_call = [this, seen = 0](const std::string &line) mutable {
        if (line.starts_with("SymPdevShow ") && ++seen == 2) {
            array.device(array_1, "00A1").record.bcv_count = 0;
        }
    };
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(10, "find_bcv_info: Cannot find BCV 01A1 for disk 00A1 in group DG");
    EXPECT_EQ(test::log_lines().back(), "split_device failed");
}

// The limit.

// An object with as many split pairs; the array shows all of them under paths of their own.
void add_pairs(hdef *h, test::FakeArray *array, int count) {
    prim_mir_info **end = &h->pminfo_list;
    for (int i = 0; i < count; ++i) {
        char primary[16];
        snprintf(primary, sizeof primary, "%04X", static_cast<unsigned>(i));
        const std::string bcv = std::string("B") + (primary + 1);
        const std::string path = std::string("/dev/") + primary;
        array->pair(array->add_primary(array_1, primary, path), array->add_bcv(array_1, bcv, ""),
                    5);
        *end = test::make_pm(array_1, primary, bcv.c_str(), path.c_str());
        (*end)->sync_at_end = 1;
        end = &(*end)->next;
    }
}

TEST_F(ThawCommit, batch_of_2046_pairs_is_established) {
    hdef *h = new_device();
    add_pairs(h, &array, 2046);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    ASSERT_EQ(controls().size(), 1U);
    EXPECT_TRUE(controls()[0].starts_with("SymDevListBcvControl 000184500001 2046 ["));
}

// The message names 2048 although the limit is lower; scripts know that number.
TEST_F(ThawCommit, batch_of_2047_pairs_fails_before_the_array_is_touched) {
    hdef *h = new_device();
    add_pairs(h, &array, 2047);
    h->pminfo_list->lock_set = 0;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(7, "TimeFinder_thaw_commit: Too many devices : 2047 (max 2048)");
    EXPECT_EQ(test::log_lines().back(), "split_device failed");
    EXPECT_EQ(controls(), test::Lines{});
}

TEST_F(ThawCommit, batch_table_is_emptied_and_control_code_4_finds_no_queue) {
    hdef *old = new_device();
    primmirlist[2047] = add_record(old, array_1, "00FF", "01FF", "/dev/pff");
    prim_mir_info_size = 5;
    hdef *h = new_split_device("00A1", "01A1");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(primmirlist[0], h->pminfo_list);
    EXPECT_EQ(primmirlist[2047], nullptr);
    ASSERT_EQ(prim_mir_info_size, 0);
    array.calls.clear();
    EXPECT_EQ(TimeFinder_ctl(h, TF_CTL_RESYNC_AT_START), 0);
    EXPECT_EQ(array.calls, test::Lines{});
}

TEST_F(ThawCommit, call_behind_the_last_one_finds_everything_established) {
    total_freeze_volumes = 1;
    hdef *h = new_split_device("00A1", "01A1");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(controls().size(), 1U);
    EXPECT_EQ(array.calls_of("SymInitV").size(), 2U);
    EXPECT_TRUE(logged("device /dev/qz/rdmp/p00A11 already established"));
    EXPECT_EQ(thaw_commit_vols, 2);
}

TEST_F(ThawCommit, failed_call_counts_too) {
    total_freeze_volumes = 2;
    hdef *first = new_split_device("00A1", "01A1");
    array.script("SymInitV", {44, 44});
    thaw_commit_vols = 1;
    EXPECT_EQ(TimeFinder_thaw_commit(first), 11);
    EXPECT_EQ(thaw_commit_vols, 2);
    EXPECT_EQ(TimeFinder_thaw_commit(first), 0);
    EXPECT_EQ(controls().size(), 1U);
}

// Locks.

TEST_F(ThawCommit, locks_of_all_objects_are_released) {
    hdef *h = new_split_device("00A1", "01A1");
    hdef *other = new_split_device("00A2", "01A2");
    take_lock(h, h->pminfo_list);
    take_lock(other, other->pminfo_list);
    other->pminfo_list->sync_at_end = 0;
    ASSERT_TRUE(test::exists(counter_file));
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_FALSE(test::exists(counter_file));
    EXPECT_EQ(h->pminfo_list->lock_set, 0);
    EXPECT_EQ(other->pminfo_list->lock_set, 0);
    EXPECT_EQ(commands(), test::Lines{});
    for (const std::string &line : test::log_lines()) {
        EXPECT_FALSE(line.starts_with("could not unlock device")) << line;
    }
}

TEST_F(ThawCommit, nothing_is_imported_or_mounted_without_a_restore) {
    hdef *h = new_imported_volume("vola", "datadg", TF_OBJECT_FILE_SYSTEM);
    add_pair(h, array_1, "00A1", "01A1", "/dev/qz/rdmp/p0", 5);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
}

TEST_F(ThawCommit, lock_that_cannot_be_released_is_only_logged) {
    hdef *h = new_split_device("00A1", "01A1", array_1, 2);
    h->pminfo_list->lock_set = 1;
    tf::put(h->pminfo_list->lock_file, "/no/such/folder/file");
    recorded.install_device_tool("SN00000077");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(whole_log(),
              "device /dev/qz/rdmp/p00A11 already established\n"
              "could not open file: /no/such/folder/file\n"
              "could not unlock device /dev/qz/rdmp/p00A11\n");
    EXPECT_EQ(h->pminfo_list->lock_set, 0);
    expect_no_failure();
}

TEST_F(ThawCommit, record_behind_one_whose_lock_cannot_be_released_is_released) {
    hdef *h = new_split_device("00A1", "01A1");
    prim_mir_info *second = add_pair(h, array_1, "00A2", "01A2", "/dev/qz/rdmp/p00A21", 5);
    take_lock(h, second);
    h->pminfo_list->lock_set = 1;
    tf::put(h->pminfo_list->lock_file, "/no/such/folder/file");
    ASSERT_TRUE(test::exists(counter_file));
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(times_logged("could not unlock device /dev/qz/rdmp/p00A11"), 1);
    EXPECT_FALSE(logged("could not unlock device /dev/qz/rdmp/p00A21"));
    EXPECT_EQ(h->pminfo_list->lock_set, 0);
    EXPECT_EQ(second->lock_set, 0);
    EXPECT_FALSE(test::exists(counter_file));
    EXPECT_TRUE(logged("Total BCVs to resync : 2"));
    expect_no_failure();
}

TEST_F(ThawCommit, record_whose_lock_flag_is_another_number_holds_no_lock) {
    hdef *h = new_split_device("00A1", "01A1", array_1, 2);
    h->pminfo_list->lock_set = 2;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(h->pminfo_list->lock_set, 2);
}

TEST_F(ThawCommit, lock_goes_before_the_limit_is_tested) {
    hdef *h = new_device();
    add_pairs(h, &array, 2047);
    prim_mir_info *last = h->pminfo_list;
    while (last->next != nullptr) last = last->next;
    take_lock(h, last);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    EXPECT_EQ(last->lock_set, 0);
    EXPECT_FALSE(test::exists(counter_file));
}

TEST_F(ThawCommit, capture_files_stay_unless_both_names_are_set) {
    hdef *h = new_device();
    char *const out_file = h->out_file;
    h->out_file = nullptr;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_TRUE(test::exists(h->err_file));
    h->out_file = out_file;
}

}  // namespace
