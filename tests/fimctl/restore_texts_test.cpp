// The lines that a restore adds to a checkpoint text, and the ones that it changes.
#include "fimctl/restore/texts.h"

#include <gtest/gtest.h>

namespace {

using fimctl::Pair;
using fimctl::pair_lines;
using fimctl::text_for_restore;

constexpr char text[] =
    "HDEF-is_mount=0\nHDEF-mount_point=/copies/1\nPRIM_MIR_INFO=START\n"
    "PMINFO-symid=000184500123\nPMINFO-dev_sym_devname=00A1\nPMINFO-dev_raw_device=/dev/qz/rdmp/"
    "p0\n"
    "PMINFO-bcv_raw_device=/dev/sdq\nPMINFO-bcvdev_sym_devname=01A1\nPMINFO-sync_at_end=1\n"
    "PRIM_MIR_INFO=NEXT\n"
    "PMINFO-symid=000184500123\nPMINFO-dev_sym_devname=00A2\nPMINFO-bcvdev_sym_devname=01A2\n"
    "PMINFO-sync_at_end=0\nPRIM_MIR_INFO=NEXT\nPRIM_MIR_INFO=END\n";

TEST(RestoreTexts, three_lines_are_added_and_nothing_else_is_changed) {
    EXPECT_EQ(text_for_restore(text, "/data", {}),
              std::string(text) + "HDEF-restore=1\nHDEF-mount_point=/data\nHDEF-is_mount=0\n");
}

TEST(RestoreTexts, a_device_has_no_directory) {
    EXPECT_EQ(text_for_restore(text, "", {}),
              std::string(text) + "HDEF-restore=1\nHDEF-is_mount=0\n");
}

TEST(RestoreTexts, a_pair_that_is_done_is_not_worked_on_again) {
    const std::string made = text_for_restore(text, "", {{"000184500123", "00A1", "01A1"}});
    const auto records = pair_lines(made);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_FALSE(records[0].wanted);
    EXPECT_FALSE(records[1].wanted);
    // Another pair, or one of another array, is.
    for (const Pair &other : {Pair{"000184500123", "00A1", "01A9"}, Pair{"X", "00A1", "01A1"}}) {
        EXPECT_TRUE(pair_lines(text_for_restore(text, "", {other}))[0].wanted);
    }
}

TEST(RestoreTexts, a_record_is_read_with_its_host_names) {
    const auto records = pair_lines(text);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].pair, (Pair{"000184500123", "00A1", "01A1"}));
    EXPECT_EQ(records[0].primary, "/dev/qz/rdmp/p0");
    EXPECT_EQ(records[0].mirror, "/dev/sdq");
    EXPECT_TRUE(records[0].wanted);
    EXPECT_EQ(records[1].primary, "");
    EXPECT_FALSE(records[1].wanted);
}

}  // namespace
