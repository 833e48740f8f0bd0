// A split that the array refuses: the user hears what the array has answered, and of no pair that
// it was split.
#include "tests/support/world.h"

namespace {

using test::World;

struct RefusedSplit : World {
    RefusedSplit() : World("small") {}
};

TEST_F(RefusedSplit, is_told_with_the_arrays_own_answer_needs_root) {
    mount_source("ext4");
    synchronise();
    array("fault add SymDevListBcvControl");
    int status = -1;
    const std::string told =
        host("LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so fimctl freeze --freeze-deadline 300 /data",
             &status);
    EXPECT_EQ(status, 1) << told;
    const size_t first = told.find(
        "step \"freeze commit\" failed: emc_tf_bcv_control_all: SymAPI call to "
        "SymDevListBcvControl "
        "to establish BCV failed with code: ");
    const size_t last = told.find("; in the end: emc_tf_wait_for_split: Cannot split device ");
    EXPECT_NE(first, std::string::npos) << told;
    EXPECT_NE(last, std::string::npos) << told;
    EXPECT_LT(first, last) << told;
    EXPECT_EQ(told.find("pair split"), std::string::npos) << told;
    EXPECT_EQ(host("fimctl list"), "no snapshots\n");
}

}  // namespace
