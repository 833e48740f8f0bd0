// Something stands under the very name that a temporary file gets: the operation fails, and what
// stands there is as it was, also when everything has been released.
#include <gtest/gtest.h>

#include "method/command.h"
#include "tests/method/freeze_fixture.h"
#include "tests/method/rebuild_fixture.h"
#include "tests/support/planted.h"
#include "timefinder.h"

namespace {

constexpr char name[] = "/tmp/planted";

class PlantedForRelease : public test::RebuildTest,
                          public testing::WithParamInterface<test::Planted> {
  protected:
    const test::PlantedThing planted{GetParam(), name};
};

TEST_P(PlantedForRelease, capture_file_is_not_written_into) {
    for (const int which : {1, 2}) {
        hdef object = {};
        test::name_temporary_file(which, name);
        tf::make_capture_files(&object);
        test::no_more_faults();
        EXPECT_EQ(do_cmd(&object, "echo text; echo text >&2"), 11);
        EXPECT_EQ(errnum, 3);
        EXPECT_TRUE(std::string(errmsg).starts_with(
            "do_cmd: Command failed with status=2: echo text; echo text >&2 </dev/null >"))
            << errmsg;
        {
            tf::CapturedOutput output(&object);
            EXPECT_EQ(which == 1 ? output.options()->out_fd : output.options()->err_fd, -1);
        }
        tf::remove_capture_files(&object);
        planted.expect_untouched();
        EXPECT_FALSE(test::exists(which == 1 ? object.err_file : object.out_file));
        free(object.out_file);
        free(object.err_file);
    }
}

TEST_P(PlantedForRelease, transfer_file_of_a_rebuild_is_not_written_into) {
    test::name_temporary_file(3, name);
    EXPECT_EQ(rebuild("HDEF-CLONE_INFO_FILE=START\na line\nHDEF-CLONE_INFO_FILE=END\n"), 11);
    test::no_more_faults();
    expect_failure(13, "TimeFinder_rebuild: Cannot open file /tmp/planted: File exists");
    ASSERT_NE(h, nullptr);
    TimeFinder_thaw(h);
    planted.expect_untouched();
}

TEST_P(PlantedForRelease, clone_information_of_a_checkpoint_is_not_written_into) {
    hdef *volume = new_volume();
    add_record(volume, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
    tf::put(volume->transfer_file, name);
    char *text = nullptr;
    EXPECT_EQ(TimeFinder_ckpt(volume, &text), 11);
    EXPECT_EQ(text, nullptr);
    expect_failure(13, "build_table_hdef: Cannot open file /tmp/planted: File exists");
    EXPECT_EQ(commands(), test::Lines{});
    TimeFinder_thaw(volume);
    TimeFinder_thaw_commit(volume);
    planted.expect_untouched();
}

TEST_P(PlantedForRelease, transfer_file_that_was_exchanged_is_not_removed) {
    hdef *volume = new_volume();
    tf::put(volume->transfer_file, name);
    tf::discard_transfer_file(volume);
    EXPECT_STREQ(volume->transfer_file, "");
    planted.expect_untouched();
}

INSTANTIATE_TEST_SUITE_P(Every, PlantedForRelease, test::every_planted, test::planted_name);

class PlantedForFreeze : public test::FreezeTest,
                         public testing::WithParamInterface<test::Planted> {
  protected:
    PlantedForFreeze() {
        mount_device("/dev/qz/dsk/datadg/vol1");
        clone_tool_answers(std::string(test::raw_disk) + "\n");
    }
};

TEST_P(PlantedForFreeze, device_list_of_the_clone_tool_is_not_written_into) {
    {
        const test::PlantedThing planted(GetParam(), name);
        test::name_temporary_file(4, name);  // behind the capture files' and the transfer file's
        EXPECT_EQ(freeze(), 11);
        test::no_more_faults();
        planted.expect_untouched();
    }
    EXPECT_TRUE(logged("vol_to_device: Cannot open file /tmp/planted: File exists"));
    EXPECT_EQ(clone_tool_runs(), "");
    expect_given_up(3, "vol_to_device: Cannot discover devices associated with volume");
}

TEST_P(PlantedForFreeze, capture_file_stays_when_the_freeze_gives_up) {
    const test::PlantedThing planted(GetParam(), name);
    test::name_temporary_file(1, name);
    EXPECT_EQ(freeze(), 11);
    test::no_more_faults();
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(clone_tool_runs(), "");
    planted.expect_untouched();
}

INSTANTIATE_TEST_SUITE_P(Every, PlantedForFreeze, test::every_planted, test::planted_name);

}  // namespace
