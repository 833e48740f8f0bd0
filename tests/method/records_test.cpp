#include "method/records.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>

#include "method/pair_index.h"
#include "method/text.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/fake_array.h"
#include "tests/support/method_fixture.h"

namespace test {
namespace {

class Records : public Method {
  protected:
    ~Records() override { tf::free_all_records(); }

    // An object as freeze makes it; DG_LIST owns it once it is entered.
    static hdef *object(const std::string &group, int32_t is_vol = 0) {
        hdef *h = tf::make_zeroed<hdef>();
        tf::put(h->vol_group, group.c_str());
        h->is_vol = is_vol;
        return h;
    }
    static hdef *inserted(const std::string &group, int32_t is_vol = 0) {
        hdef *h = object(group, is_vol);
        EXPECT_EQ(dg_insert(h), 0);
        return h;
    }
    static std::vector<hdef *> members(const char *group) {
        std::vector<hdef *> found;
        for (dg_member *m = dg_find(group)->members; m != nullptr; m = m->next) {
            found.push_back(m->h);
        }
        return found;
    }
    static std::string groups() {
        std::string text;
        for (dg_entry *g = DG_LIST; g != nullptr; g = g->next)
            text += g->dg_name + std::string(" ");
        return text;
    }
};

TEST_F(Records, no_group_is_found_in_an_empty_list) {
    EXPECT_EQ(DG_LIST, nullptr);
    EXPECT_EQ(dg_find("DG"), nullptr);
    EXPECT_EQ(dg_find(""), nullptr);
}

TEST_F(Records, objects_of_one_group_share_its_entry_newest_first) {
    hdef *const first = inserted("DG");
    hdef *const second = inserted("DG");
    EXPECT_EQ(groups(), "DG ");
    EXPECT_EQ(members("DG"), (std::vector<hdef *>{second, first}));
    expect_no_failure();
}

TEST_F(Records, groups_stand_newest_first) {
    inserted("A");
    inserted("B");
    inserted("A");
    EXPECT_EQ(groups(), "B A ");
}

TEST_F(Records, a_group_is_found_by_its_exact_name_only) {
    inserted("data");
    EXPECT_EQ(dg_find("Data"), nullptr);
    EXPECT_EQ(dg_find("dat"), nullptr);
    EXPECT_EQ(dg_find("data1"), nullptr);
    EXPECT_EQ(dg_find("data"), DG_LIST);
}

TEST_F(Records, the_first_group_of_a_name_wins) {
    inserted("A");
    inserted("B");
    tf::put(DG_LIST->next->dg_name, "B");
    EXPECT_EQ(dg_find("B"), DG_LIST);
}

TEST_F(Records, only_volumes_are_counted) {
    inserted("DG", 1);
    inserted("DG", 0);
    inserted("DG", 5);
    EXPECT_EQ(dg_find("DG")->vol_count, 2);
    EXPECT_EQ(members("DG").size(), 3U);
}

TEST_F(Records, a_new_group_starts_with_every_counter_at_0) {
    inserted("DG");
    const dg_entry *const group = dg_find("DG");
    EXPECT_EQ(group->cloned, 0);
    EXPECT_EQ(group->imported, 0);
    EXPECT_EQ(group->thaw_count, 0);
    EXPECT_EQ(group->restore_count, 0);
    EXPECT_EQ(group->vol_count, 0);
}

TEST_F(Records, an_object_that_is_entered_twice_is_listed_and_counted_twice) {
    hdef *const h = inserted("DG", 1);
    EXPECT_EQ(dg_insert(h), 0);
    EXPECT_EQ(members("DG"), (std::vector<hdef *>{h, h}));
    EXPECT_EQ(dg_find("DG")->vol_count, 2);
}

TEST_F(Records, a_group_name_of_full_length_is_kept_whole) {
    const std::string name(1023, 'g');
    inserted(name);
    EXPECT_EQ(dg_find(name.c_str()), DG_LIST);
    EXPECT_EQ(std::string(DG_LIST->dg_name), name);
}

TEST_F(Records, capture_file_without_its_twin_goes_with_the_record) {
    for (const bool has_output : {true, false}) {
        auto *const h = tf::make_zeroed<hdef>();
        (has_output ? h->out_file : h->err_file) = strdup("/tmp/QfMStest");
        test::write_file("/tmp/QfMStest", "");
        tf::free_hdef(h);
        EXPECT_FALSE(test::exists("/tmp/QfMStest"));
    }
}

// Operations remove both together, and only they know whether both are still the record's.
TEST_F(Records, capture_files_that_a_record_has_both_of_are_left_to_the_operations) {
    auto *const h = tf::make_zeroed<hdef>();
    h->out_file = strdup("/tmp/QfMSout");
    h->err_file = strdup("/tmp/QfMSerr");
    for (const char *file : {h->out_file, h->err_file}) test::write_file(file, "");
    tf::free_hdef(h);
    for (const char *file : {"/tmp/QfMSout", "/tmp/QfMSerr"}) {
        EXPECT_TRUE(test::exists(file)) << file;
        unlink(file);
    }
}

TEST_F(Records, no_memory_for_a_group_is_reported_at_line_319) {
    hdef *const h = object("DG", 1);
    fail_allocation(1);
    EXPECT_EQ(dg_insert(h), 11);
    expect_failure(1, "dg_insert: Memory allocation failure at line 319");
    EXPECT_EQ(DG_LIST, nullptr);
    tf::free_hdef(h);
}

TEST_F(Records, no_memory_for_a_member_is_reported_at_line_334_and_leaves_the_group) {
    hdef *const h = object("DG", 1);
    fail_allocation(2);
    EXPECT_EQ(dg_insert(h), 11);
    expect_failure(1, "dg_insert: Memory allocation failure at line 334");
    ASSERT_NE(dg_find("DG"), nullptr);
    EXPECT_EQ(dg_find("DG")->members, nullptr);
    EXPECT_EQ(dg_find("DG")->vol_count, 0);
    tf::free_hdef(h);
}

TEST_F(Records, a_removed_object_leaves_the_count_of_its_group_as_it_was) {
    hdef *const first = inserted("DG", 1);
    hdef *const second = inserted("DG", 1);
    hdef *const third = inserted("DG", 0);
    tf::dg_remove(second);
    EXPECT_EQ(members("DG"), (std::vector<hdef *>{third, first}));
    EXPECT_EQ(dg_find("DG")->vol_count, 1);
    tf::dg_remove(third);
    EXPECT_EQ(members("DG"), std::vector<hdef *>{first});
    EXPECT_EQ(dg_find("DG")->vol_count, 1);
    tf::free_hdef(second);
    tf::free_hdef(third);
}

TEST_F(Records, a_group_goes_with_its_last_member) {
    inserted("A");
    hdef *const h = inserted("B", 1);
    inserted("C");
    tf::dg_remove(h);
    EXPECT_EQ(groups(), "C A ");
    tf::free_hdef(h);
}

TEST_F(Records, an_object_that_was_entered_twice_is_removed_wherever_it_stands) {
    hdef *const other = inserted("DG", 1);
    hdef *const h = inserted("DG", 1);
    EXPECT_EQ(dg_insert(h), 0);
    tf::dg_remove(h);
    EXPECT_EQ(members("DG"), std::vector<hdef *>{other});
    EXPECT_EQ(dg_find("DG")->vol_count, 1);
    tf::free_hdef(h);
}

TEST_F(Records, removing_takes_a_group_along_that_a_failed_insertion_left_empty) {
    hdef *const h = object("DG", 1);
    fail_allocation(2);
    EXPECT_EQ(dg_insert(h), 11);
    tf::dg_remove(h);
    EXPECT_EQ(DG_LIST, nullptr);
    tf::free_hdef(h);
}

TEST_F(Records, removing_an_object_that_is_not_listed_changes_nothing) {
    inserted("DG", 1);
    hdef *const same_group = object("DG", 1);
    hdef *const no_group = object("other", 1);
    tf::dg_remove(same_group);
    tf::dg_remove(no_group);
    EXPECT_EQ(groups(), "DG ");
    EXPECT_EQ(dg_find("DG")->vol_count, 1);
    EXPECT_EQ(members("DG").size(), 1U);
    tf::free_hdef(same_group);
    tf::free_hdef(no_group);
}

// One process's worth of records, freed as at the end of the library's life.
TEST_F(Records, everything_is_freed_once_also_what_is_listed_twice) {
    const auto live = [] {
        hdef *const h = inserted("A", 1);
        h->out_file = strdup("/tmp/QfMSout");
        h->err_file = strdup("/tmp/QfMSerr");
        h->pminfo_list = make_pm("000000000001", "0001", "0101", "/dev/p");
        h->pminfo_list->next = make_pm("000000000001", "0002", "0102", "/dev/p");
        EXPECT_EQ(dg_insert(h), 0);
        tf::put(h->vol_group, "B");
        EXPECT_EQ(dg_insert(h), 0);
        inserted("B");
        prim_mir_info_size = tf::append_pair(h->pminfo_list, 0);
        tf::free_all_records();
    };
    live();
    // malloc counts what it holds back for reuse, so only what grows with the rounds is a leak.
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) live();
    EXPECT_LT(mallinfo2().uordblks, before + 10000);
    EXPECT_EQ(DG_LIST, nullptr);
    EXPECT_EQ(primmirlist[0], nullptr);
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(Records, freeing_nothing_is_allowed) {
    tf::free_hdef(nullptr);
    tf::free_devices(nullptr);
    tf::free_all_records();
    tf::free_all_records();
}

TEST_F(Records, sorting_puts_the_array_with_the_lower_serial_first) {
    std::vector<prim_mir_info *> records;
    for (const char *symid : {"000002000001", "000001000001", "000002000001", "000001000001"}) {
        records.push_back(make_pm(symid, "0001", "0101", "/dev/p"));
    }
    std::vector<prim_mir_info *> sorted = records;
    for (int order = 0; order < 2; ++order) {
        qsort(sorted.data(), sorted.size(), sizeof sorted[0], primmircmp);
        EXPECT_EQ(std::string(sorted[0]->symid), "000001000001");
        EXPECT_EQ(std::string(sorted[1]->symid), "000001000001");
        EXPECT_EQ(std::string(sorted[2]->symid), "000002000001");
        EXPECT_EQ(std::string(sorted[3]->symid), "000002000001");
        sorted = {records.rbegin(), records.rend()};
    }
    EXPECT_EQ(primmircmp(&records[0], &records[2]), 0);
    EXPECT_GT(primmircmp(&records[0], &records[1]), 0);
    EXPECT_LT(primmircmp(&records[1], &records[0]), 0);
    for (prim_mir_info *pm : records) free(pm);
}

class FindBcvInfo : public Method {
  protected:
    // A device record with one entry per name.
    static SymDevice device(const std::vector<std::string> &bcvs, long state = 2) {
        SymDevice d = {};
        tf::put(d.sym_devname, "0001");
        tf::put(d.dgname, "DG");
        for (const std::string &name : bcvs) {
            SymBcvInfo &info = d.bcvs[d.bcv_count++];
            tf::put(info.dev_serial_id, "000000000001");
            tf::put(info.dev_sym_devname, "0001");
            tf::put(info.dev_dgname, "DG");
            tf::put(info.bcvdev_serial_id, "000000000002");
            tf::put(info.bcvdev_sym_devname, name.c_str());
            tf::put(info.bcvdev_dgname, "BG");
            info.bcv_pair_state = state;
        }
        return d;
    }

    const SymBcvInfo *found = nullptr;
};

constexpr char first_line[] = "\tDevice is part of a BCV pair. bcvinfo:";

TEST_F(FindBcvInfo, points_to_the_first_entry_of_the_name_and_logs_it) {
    const SymDevice d = device({"0A01", "0A02", "0A02"});
    EXPECT_EQ(find_bcv_info(&d, "0A02", &found), 0);
    EXPECT_EQ(found, &d.bcvs[1]);
    EXPECT_EQ(whole_log(),
              "\tDevice is part of a BCV pair. bcvinfo:\n"
              "\t\tdev_serial_id=000000000001\n"
              "\t\tdev_sym_devname=0001\n"
              "\t\tdev_dgname=DG\n"
              "\t\tbcvdev_serial_id=000000000002\n"
              "\t\tbcvdev_sym_devname=0A02\n"
              "\t\tbcvdev_dgname=BG\n"
              "\t\tbcv_pair_state=2\n");
    expect_no_failure();
}

TEST_F(FindBcvInfo, logs_at_level_2_only) {
    set_level(1);
    const SymDevice d = device({"0A03"});
    EXPECT_EQ(find_bcv_info(&d, "0A03", &found), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(FindBcvInfo, an_unchanged_pair_is_logged_once_so_that_polls_do_not_flood_the_log) {
    const SymDevice d = device({"0A04"});
    for (int i = 0; i < 3; ++i) EXPECT_EQ(find_bcv_info(&d, "0A04", &found), 0);
    EXPECT_EQ(times_logged(first_line), 1);
}

TEST_F(FindBcvInfo, a_changed_state_is_logged_again) {
    SymDevice d = device({"0A05"}, 1);
    EXPECT_EQ(find_bcv_info(&d, "0A05", &found), 0);
    d.bcvs[0].bcv_pair_state = 2;
    EXPECT_EQ(find_bcv_info(&d, "0A05", &found), 0);
    EXPECT_EQ(times_logged(first_line), 2);
    EXPECT_TRUE(logged("\t\tbcv_pair_state=1"));
    EXPECT_TRUE(logged("\t\tbcv_pair_state=2"));
}

TEST_F(FindBcvInfo, another_bcv_in_between_is_logged_and_the_first_one_again) {
    const SymDevice d = device({"0A06", "0A07"});
    for (const char *name : {"0A06", "0A07", "0A06"}) {
        EXPECT_EQ(find_bcv_info(&d, name, &found), 0);
    }
    EXPECT_EQ(times_logged(first_line), 3);
}

TEST_F(FindBcvInfo, what_was_found_below_level_2_counts_as_logged) {
    const SymDevice d = device({"0A08"});
    set_level(0);
    EXPECT_EQ(find_bcv_info(&d, "0A08", &found), 0);
    set_level(2);
    EXPECT_EQ(find_bcv_info(&d, "0A08", &found), 0);
    EXPECT_EQ(times_logged(first_line), 0);
}

TEST_F(FindBcvInfo, a_bcv_that_is_not_there_is_reported) {
    const SymDevice d = device({"0A09"});
    EXPECT_EQ(find_bcv_info(&d, "0A0A", &found), 11);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0A0A for disk 0001 in group DG");
    EXPECT_EQ(whole_log(), "find_bcv_info: Cannot find BCV 0A0A for disk 0001 in group DG\n");
    EXPECT_EQ(found, nullptr);
}

TEST_F(FindBcvInfo, a_device_without_entries_is_reported_alike_at_level_0) {
    set_level(0);
    const SymDevice d = device({});
    EXPECT_EQ(find_bcv_info(&d, "0A0B", &found), 11);
    EXPECT_EQ(errnum, 10);
    EXPECT_EQ(whole_log(), "find_bcv_info: Cannot find BCV 0A0B for disk 0001 in group DG\n");
}

TEST_F(FindBcvInfo, a_count_beyond_the_record_is_not_followed) {
    SymDevice d = device({"0A0C"});
    d.bcv_count = 1000000;
    EXPECT_EQ(find_bcv_info(&d, "0A0D", &found), 11);
    d.bcv_count = -1;
    EXPECT_EQ(find_bcv_info(&d, "0A0C", &found), 11);
}

}  // namespace
}  // namespace test
