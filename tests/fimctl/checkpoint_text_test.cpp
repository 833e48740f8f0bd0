#include "fimctl/checkpoint_text.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/private_root.h"

namespace {

using fimctl::CheckpointText;
using fimctl::Pair;

const std::string two_pairs =
    "HDEF-is_mount=0\nHDEF-object_type=3\nPRIM_MIR_INFO=START\nPMINFO-dev_raw_uid=0\n"
    "PMINFO-symid=000184500123\nPMINFO-dev_sym_devname=00A1\nPMINFO-bcvdev_sym_devname=00B1\n"
    "PRIM_MIR_INFO=NEXT\n"
    "PMINFO-symid=000184500456\nPMINFO-dev_sym_devname=00A1\nPMINFO-bcvdev_sym_devname=00B7\n"
    "PRIM_MIR_INFO=NEXT\nPRIM_MIR_INFO=END\n";

TEST(CheckpointText, names_the_pairs_of_its_records) {
    const auto pairs = CheckpointText(two_pairs).pairs();
    ASSERT_EQ(pairs.size(), 2U);
    EXPECT_EQ(pairs[0], (Pair{"000184500123", "00A1", "00B1"}));
    EXPECT_EQ(pairs[1], (Pair{"000184500456", "00A1", "00B7"}));
}

TEST(CheckpointText, a_group_that_is_not_closed_is_no_pair) {
    EXPECT_TRUE(CheckpointText("PMINFO-symid=1\nPMINFO-dev_sym_devname=2\n").pairs().empty());
}

TEST(CheckpointText, a_last_piece_without_a_newline_is_no_line) {
    EXPECT_EQ(CheckpointText("HDEF-a=1\nHDEF-a=2").value("HDEF-a"), "1");
}

TEST(CheckpointText, later_lines_win) {
    EXPECT_EQ(CheckpointText("HDEF-a=1\nHDEF-a=2\n").value("HDEF-a"), "2");
    EXPECT_EQ(CheckpointText("HDEF-ab=1\n").value("HDEF-a"), "");
}

TEST(CheckpointText, knows_the_target_host) {
    EXPECT_FALSE(CheckpointText(two_pairs).is_target());
    EXPECT_TRUE(CheckpointText("HDEF-is_tgt=1\n" + two_pairs).is_target());
    EXPECT_FALSE(CheckpointText("HDEF-is_tgt=0\n" + two_pairs).is_target());
}

TEST(CheckpointText, the_clone_information_is_carried_inside_its_block) {
    test::write_file("/var/transfer", "line one\nline two\n");
    const std::string text =
        "HDEF-a=1\nHDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/var/transfer\n"
        "HDEF-CLONE_INFO_FILE=END\nPRIM_MIR_INFO=START\n";
    EXPECT_EQ(fimctl::with_clone_information(text),
              "HDEF-a=1\nHDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/var/transfer\n"
              "line one\nline two\nHDEF-CLONE_INFO_FILE=END\nPRIM_MIR_INFO=START\n");
}

TEST(CheckpointText, a_text_without_a_clone_block_is_kept_as_it_is) {
    EXPECT_EQ(fimctl::with_clone_information(two_pairs), two_pairs);
}

TEST(CheckpointText, a_file_system_that_may_be_mounted_is_told_to_unmount) {
    EXPECT_EQ(CheckpointText(fimctl::as_if_mounted(two_pairs)).value("HDEF-is_mount"), "1");
    const std::string device = "HDEF-is_mount=0\nHDEF-object_type=2\n";
    EXPECT_EQ(fimctl::as_if_mounted(device), device);
}

}  // namespace
