// A copy is good only when the array says that this commit split every pair.
#include "fimctl/judge.h"

#include <unistd.h>

#include <fstream>

#include "tests/fimctl/world.h"

namespace {

using fimctl::judge;
using fimctl::PairRecord;
using fimctl::State;
using test::Ended;

PairRecord pair(const char *symid, const char *device, long before, long after) {
    return {{symid, device, "00B1"}, before, after};
}

TEST(Judge, a_pair_that_went_from_synchronised_to_split_is_good) {
    EXPECT_TRUE(judge({pair("000184500123", "00A1", 2, 5)}, {}).empty());
    EXPECT_TRUE(judge({pair("000184500123", "00A1", 8, 5)}, {}).empty());
}

TEST(Judge, a_pair_that_is_not_split_makes_the_copy_void) {
    const auto reasons = judge({pair("000184500123", "00A1", 2, 3)}, {});
    ASSERT_EQ(reasons.size(), 1U);
    EXPECT_EQ(reasons[0], "pair 00A1/00B1 of array 000184500123 is not split: state 3 (splitting)");
}

TEST(Judge, a_pair_that_was_split_before_makes_the_copy_void) {
    const auto reasons = judge({pair("000184500123", "00A1", 5, 5)}, {{"00A1", "00B1"}});
    ASSERT_EQ(reasons.size(), 1U);
    EXPECT_EQ(reasons[0], "pair 00A1/00B1 of array 000184500123 was split before this commit");
}

TEST(Judge, without_a_state_from_before_the_methods_split_list_decides) {
    EXPECT_TRUE(judge({pair("000184500123", "00A1", -1, 5)}, {{"00A1", "00B1"}}).empty());
    const auto reasons = judge({pair("000184500123", "00A1", -1, 5)}, {});
    ASSERT_EQ(reasons.size(), 1U);
    EXPECT_EQ(reasons[0], "pair 00A1/00B1 of array 000184500123 was not split by this commit");
}

TEST(Judge, without_a_state_from_before_a_name_on_two_arrays_proves_nothing) {
    const auto reasons =
        judge({pair("000184500123", "00A1", -1, 5), pair("000184500456", "00A1", -1, 5)},
              {{"00A1", "00B1"}});
    EXPECT_EQ(reasons.size(), 2U);
}

class VoidCopy : public test::FimctlWorld {
  protected:
    void expect_void(const Ended &ended, const std::string &reason) {
        EXPECT_EQ(ended.status, 1);
        EXPECT_NE(ended.err.find("the copy is void: " + reason), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("then: released"), std::string::npos) << ended.err;
        EXPECT_EQ(snapshot(1).void_reason, reason);
        EXPECT_EQ(snapshot(1).state, State::released);
    }
};

TEST_F(VoidCopy, a_pair_that_the_commit_left_alone_is_told_and_the_snapshot_released) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    script("freeze_commit 1 keep-split-from 000184500123");
    expect_void(fimctl({"run", "--no-quiesce", one, "--", "touch", "/var/fake/ran"}),
                "pair 00A1/00B1 of array 000184500123 is not split: state 2 (synchronised)");
    EXPECT_NE(access("/var/fake/ran", F_OK), 0) << "nobody may back up a void copy";
}

TEST_F(VoidCopy, the_same_device_name_on_two_arrays_is_split_only_once) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    const auto two = add_file_system("two", "000184500456", "00A1", "00B1");
    expect_void(fimctl({"freeze", "--no-quiesce", one, two}),
                "pair 00A1/00B1 of array 000184500456 is not split: state 2 (synchronised)");
}

TEST_F(VoidCopy, a_pair_that_is_split_while_the_commit_has_not_begun_is_no_copy_of_ours) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    // The real commit passes over a split pair of an array whose lock this process had before.
    script("ckpt 1 copy /var/fake/split-array /var/fake/array");
    script("freeze_commit 1 copy /var/fake/synchronised-array /var/fake/array");
    std::ofstream("/var/fake/split-array") << "000184500123 00A1 00B1 5\n";
    std::ofstream("/var/fake/synchronised-array") << "000184500123 00A1 00B1 2\n";
    expect_void(fimctl({"freeze", "--no-quiesce", one}),
                "pair 00A1/00B1 of array 000184500123 was split before this commit");
}

TEST_F(VoidCopy, an_array_that_cannot_be_read_before_the_commit_stops_it) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    array_fails("SymDevShow", 99);
    const Ended ended = fimctl({"freeze", "--no-quiesce", one});
    EXPECT_EQ(ended.status, 12);
    EXPECT_EQ(story(), "freeze ctl ckpt thaw thaw_commit");
    EXPECT_NE(ended.err.find("step \"read the pair states\" failed"), std::string::npos)
        << ended.err;
}

TEST_F(VoidCopy, an_array_that_cannot_be_read_after_the_commit_makes_it_void) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    std::ofstream("/var/fake/failing") << "SymDevShow 99\n";
    script("ckpt 2 copy /var/fake/failing /var/fake/symapi");
    const Ended ended = fimctl({"freeze", "--no-quiesce", one});
    EXPECT_EQ(ended.status, 12);
    EXPECT_NE(ended.err.find("void: it could not be judged: cannot read device 00A1"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(snapshot(1).state, State::released);
}

}  // namespace
