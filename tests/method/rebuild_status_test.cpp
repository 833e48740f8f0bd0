// What decides the status of a rebuild: its last converted line, and the checks behind the text.
#include <unistd.h>

#include <cstring>

#include "tests/method/rebuild_fixture.h"

namespace {

using test::symid;

class RebuildStatus : public test::RebuildTest {
  protected:
    static constexpr char counter_file[] =
        "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_SN00000000";
};

TEST_F(RebuildStatus, line_that_is_no_pair_is_reported_and_a_later_good_line_makes_up_for_it) {
    EXPECT_EQ(rebuild("no pair\nHDEF-keep_fi=1\n"), 0);
    expect_failure(1,
                   "TimeFinder_rebuild: convert_internal: input string not name=value pair: "
                   "no pair");
    EXPECT_TRUE(is_listed(h));
}

TEST_F(RebuildStatus, bad_last_line_fails_the_rebuild_and_keeps_the_record_out_of_the_list) {
    EXPECT_EQ(rebuild("HDEF-keep_fi=1\n\n"), 11);
    expect_failure(1, "TimeFinder_rebuild: convert_internal: input string not name=value pair: ");
    EXPECT_EQ(h->keep_fi, 1);
    EXPECT_FALSE(is_listed(h));
    EXPECT_EQ(total_freeze_volumes, 1);
}

// Only converted lines decide.
TEST_F(RebuildStatus, markers_and_framework_lines_do_not_make_up_for_a_bad_line) {
    EXPECT_EQ(rebuild(known_pair() + "bad\nHDEF-is_tgt=1\nHDEF-restore=0\nPRIM_MIR_INFO=START\n"
                                     "PRIM_MIR_INFO=END\nHDEF-CLONE_INFO_FILE=START\n"
                                     "a line\nHDEF-CLONE_INFO_FILE=END\n"),
              11);
    EXPECT_FALSE(is_listed(h));
    EXPECT_EQ(test::read_file(h->transfer_file), "a line\n");
}

TEST_F(RebuildStatus, restore_without_import_is_refused) {
    EXPECT_EQ(rebuild("HDEF-restore=1\nHDEF-dgimport=0\n"), 11);
    expect_failure(7,
                   "TimeFinder_rebuild: only snapshot created with disk group import enabled can "
                   "be restored");
    EXPECT_FALSE(is_listed(h));
    EXPECT_EQ(total_freeze_volumes, 0);
    EXPECT_TRUE(test::exists(h->transfer_file));
}

TEST_F(RebuildStatus, restore_line_is_looked_at_behind_the_last_line) {
    EXPECT_EQ(rebuild("HDEF-restore=1\nHDEF-dgimport=1\n"), 0);
    EXPECT_EQ(h->restore, 1);
    EXPECT_EQ(rebuild("HDEF-dgimport=1\nHDEF-restore=1\nHDEF-dgimport=0\nHDEF-restore=0\n"), 0);
}

// The order of the checks behind the text: locks come first.
TEST_F(RebuildStatus, refused_restore_has_taken_its_locks) {
    recorded.install_device_tool("SN00000077");
    array.add_bcv(symid, "01A1", "/dev/rdsk/c1t0d0");
    EXPECT_EQ(rebuild("HDEF-restore=1\n" + pair_lines("00A1", "01A1", 1)), 11);
    EXPECT_EQ(errnum, 7);
    EXPECT_TRUE(test::exists(counter_file));
    unlink(counter_file);
}

// A bad line does not keep the checks behind the text from running.

TEST_F(RebuildStatus, locks_are_taken_behind_a_bad_last_line_and_the_object_counts) {
    recorded.install_device_tool("SN00000077");
    array.add_bcv(symid, "01A1", "/dev/rdsk/c1t0d0");
    EXPECT_EQ(rebuild(pair_lines("00A1", "01A1", 1) + "bad\n"), 11);
    expect_failure(1,
                   "TimeFinder_rebuild: convert_internal: input string not name=value pair: bad");
    const std::string counter = test::read_file(counter_file);
    ASSERT_EQ(counter.size(), 12U);
    int32_t objects = 0;
    memcpy(&objects, counter.data() + 4, sizeof objects);
    EXPECT_EQ(objects, 1);
    ASSERT_NE(h->pminfo_list, nullptr);
    EXPECT_STREQ(h->pminfo_list->p_dev_raw_device, "/dev/qz/rdmp/p00A1");
    EXPECT_EQ(h->pminfo_list->lock_set, 1);
    EXPECT_FALSE(is_listed(h));
    EXPECT_EQ(total_freeze_volumes, 1);
    unlink(counter_file);
}

TEST_F(RebuildStatus,
       refused_restore_is_told_behind_a_bad_last_line_and_the_object_does_not_count) {
    EXPECT_EQ(rebuild("HDEF-restore=1\nbad\n"), 11);
    const std::string refused =
        "TimeFinder_rebuild: only snapshot created with disk group import enabled can be restored";
    expect_failure(7, refused);
    EXPECT_EQ(whole_log(),
              "TimeFinder_rebuild: convert_internal: input string not name=value pair: bad\n" +
                  refused + "\n");
    EXPECT_FALSE(is_listed(h));
    EXPECT_EQ(total_freeze_volumes, 0);
}

}  // namespace
