// Freezes followed by the commit of the process.
#include "method/freeze_commit.h"
#include "tests/method/freeze_fixture.h"

namespace {

using namespace test;

class FreezeToCommit : public FreezeTest {};

TEST_F(FreezeToCommit, one_object_is_split_and_the_session_ends) {
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(TimeFinder_freeze_commit(handle), 0) << errmsg;
    EXPECT_EQ(array.state(array_id, "0001"), 5);
    EXPECT_EQ(handle->pminfo_list->sync_at_end, 1);
    EXPECT_EQ(client_count, 0);
    EXPECT_EQ(sH, -1);
    EXPECT_TRUE(files_left_in_tmp().empty());
    expect_no_failure();
}

TEST_F(FreezeToCommit, an_object_frozen_without_waiting_is_split_once_it_is_synchronised) {
    array.set_state(array_id, "0001", 1);
    ASSERT_EQ(freeze(nullptr, "/data", TF_FREEZE_NO_WAIT), 0) << errmsg;
    EXPECT_EQ(TimeFinder_freeze_commit(handle), 11);
    EXPECT_EQ(errnum, 11);
    array.set_state(array_id, "0001", 2);
    EXPECT_EQ(TimeFinder_freeze_commit(handle), 0) << errmsg;
    EXPECT_EQ(array.state(array_id, "0001"), 5);
}

TEST_F(FreezeToCommit, the_second_object_of_an_array_may_find_its_pair_split) {
    ASSERT_EQ(freeze(), 0);
    EXPECT_EQ(handle->pminfo_list->issplit, 0);
    ASSERT_EQ(freeze(nullptr, "/data", TF_FREEZE_NO_WAIT), 0);
    EXPECT_EQ(handle->pminfo_list->issplit, 1);
    // The older object's record still wants the pair whole.
    array.set_state(array_id, "0001", 5);
    EXPECT_EQ(TimeFinder_freeze_commit(handle), 11);
    EXPECT_TRUE(logged("Device /dev/qz/rdmp/disk_0 has already been split"));
    expect_failure(11,
                   "emc_tf_split_prepare: Device /dev/qz/rdmp/disk_0 cannot be split at freeze; "
                   "bcv_pair_state=5");
}

TEST_F(FreezeToCommit, of_two_objects_only_one_counts_down_and_the_session_stays) {
    ASSERT_EQ(freeze(), 0);
    hdef *const first = handle;
    ASSERT_EQ(freeze(), 0);
    EXPECT_EQ(TimeFinder_freeze_commit(first), 0) << errmsg;
    EXPECT_EQ(TimeFinder_freeze_commit(handle), 0) << errmsg;
    EXPECT_EQ(client_count, 1);
    EXPECT_EQ(sH, 7);
    EXPECT_TRUE(array.calls_of("SymExit").empty());
    // Only the handle that did the work loses its capture files.
    EXPECT_FALSE(exists(first->out_file));
    EXPECT_TRUE(exists(handle->out_file));
}

TEST_F(FreezeToCommit, behind_the_commit_the_queue_of_resyncs_is_empty) {
    array.set_state(array_id, "0001", 5);
    ASSERT_EQ(freeze("sync_at_start=1"), 0) << errmsg;
    EXPECT_EQ(prim_mir_info_size, 1);
    array.set_state(array_id, "0001", 2);
    EXPECT_EQ(TimeFinder_freeze_commit(handle), 0) << errmsg;
    array.calls.clear();
    EXPECT_EQ(TimeFinder_ctl(handle, TF_CTL_RESYNC_AT_START), 0);
    EXPECT_TRUE(array.calls_of("SymDevListBcvControl").empty());
}

TEST_F(FreezeToCommit, a_failed_freeze_is_not_split) {
    ASSERT_EQ(freeze(), 0);
    hdef *const first = handle;
    unlink(raw_disk);
    EXPECT_EQ(freeze(), 11);
    array.calls.clear();
    EXPECT_EQ(TimeFinder_freeze_commit(first), 0) << errmsg;
    EXPECT_EQ(array.calls_of("SymDevListBcvControl").size(), 1U);
    EXPECT_TRUE(logged("Total BCVs to split : 1"));
}

}  // namespace
