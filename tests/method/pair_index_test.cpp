// The index of the batch table.
#include "method/pair_index.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "method/text.h"

namespace {

class PairIndexTest : public testing::Test {
  protected:
    ~PairIndexTest() override { tf::clear_pairs(); }

    prim_mir_info *record(const std::string &name) {
        records.push_back(std::make_unique<prim_mir_info>());
        tf::put(records.back()->dev_sym_devname, name.c_str());
        return records.back().get();
    }
    void add(const std::string &name) { count = tf::append_pair(record(name), count); }

    std::vector<std::unique_ptr<prim_mir_info>> records;
    tf::PairIndex index;
    int32_t count = 0;
};

TEST_F(PairIndexTest, an_empty_table_contains_nothing) {
    EXPECT_FALSE(index.contains("0001", 0));
    EXPECT_FALSE(index.contains("", 0));
}

TEST_F(PairIndexTest, it_finds_every_name_of_a_full_table_and_no_other) {
    for (int i = 0; i < TF_PRIMMIRLIST_SIZE; ++i) {
        EXPECT_FALSE(index.contains(std::to_string(1000 + i).c_str(), count));
        add(std::to_string(1000 + i));
    }
    for (int i = 0; i < TF_PRIMMIRLIST_SIZE; ++i) {
        EXPECT_TRUE(index.contains(std::to_string(1000 + i).c_str(), count));
    }
    EXPECT_FALSE(index.contains("0999", count));
    EXPECT_FALSE(index.contains("9999", count));
}

TEST_F(PairIndexTest, only_the_first_count_entries_count) {
    add("0001");
    add("0002");
    EXPECT_TRUE(index.contains("0002", 2));
    EXPECT_FALSE(index.contains("0002", 1));
    EXPECT_TRUE(index.contains("0001", 1));
}

TEST_F(PairIndexTest, a_table_that_was_emptied_and_filled_anew_is_noticed) {
    add("0001");
    EXPECT_TRUE(index.contains("0001", count));
    count = 0;
    EXPECT_FALSE(index.contains("0002", count));
    add("0002");
    EXPECT_TRUE(index.contains("0002", count));
    EXPECT_FALSE(index.contains("0001", count));
}

TEST_F(PairIndexTest, empty_slots_are_passed_over) {
    EXPECT_FALSE(index.contains("0001", 5));
}

TEST_F(PairIndexTest, the_last_slot_is_written_and_none_behind_it) {
    count = TF_PRIMMIRLIST_SIZE - 1;
    add("0001");
    EXPECT_EQ(count, TF_PRIMMIRLIST_SIZE);
    EXPECT_EQ(primmirlist[TF_PRIMMIRLIST_SIZE - 1], records.back().get());
    const int32_t size_before = prim_mir_info_size;
    add("0002");
    EXPECT_EQ(count, TF_PRIMMIRLIST_SIZE + 1);
    EXPECT_EQ(prim_mir_info_size, size_before);
    EXPECT_TRUE(index.contains("0001", count));
    EXPECT_FALSE(index.contains("0002", count));
}

TEST_F(PairIndexTest, clearing_empties_every_slot_and_the_count) {
    add("0001");
    prim_mir_info_size = count;
    tf::clear_pairs();
    EXPECT_EQ(prim_mir_info_size, 0);
    for (const prim_mir_info *pm : primmirlist) EXPECT_EQ(pm, nullptr);
}

TEST_F(PairIndexTest, a_name_that_stands_twice_is_found_by_its_first_entry) {
    add("0001");
    add("0001");
    add("0002");
    EXPECT_TRUE(index.contains("0001", count));
    EXPECT_TRUE(index.contains("0002", count));
}

TEST_F(PairIndexTest, an_entry_that_was_taken_out_behind_its_back_is_not_found) {
    add("0001");
    add("0002");
    EXPECT_TRUE(index.contains("0001", count));
    primmirlist[0] = nullptr;
    EXPECT_FALSE(index.contains("0001", count));
    EXPECT_TRUE(index.contains("0002", count));
}

TEST_F(PairIndexTest, nothing_is_written_in_front_of_the_table) {
    EXPECT_EQ(tf::append_pair(record("0001"), -1), 0);
    for (const prim_mir_info *pm : primmirlist) EXPECT_EQ(pm, nullptr);
}

}  // namespace
