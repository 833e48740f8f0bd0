// The session that a thaw commit opens anew, so that it sees the array as it is now.
#include <filesystem>

#include "symapi/symapi_loader.h"
#include "tests/method/thaw_commit_fixture.h"

namespace {

class ThawCommitSession : public test::ThawCommitTest {};

TEST_F(ThawCommitSession, session_is_opened_anew_and_each_pair_is_waited_for_and_read) {
    set_level(2);
    hdef *h = new_split_device("00A1", "01A1");
    sH = 3;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(array.calls,
              (test::Lines{"SymExit 3 0", "SymApiVersion",
                           "SymInitV /var/symapi/db/symapi_db.bin mode 3 options 106 api 0x5000000",
                           "SymDevSync 000184500001 01A1 2 0", "SymPdevShow /dev/qz/rdmp/p00A11",
                           "SymDevSync 000184500001 01A1 2 0", "SymPdevShow /dev/qz/rdmp/p00A11",
                           "SymDevListBcvControl 000184500001 1 [00A1] [01A1] action 3 option "
                           "0x400000 0"}));
    EXPECT_TRUE(whole_log().starts_with("Waiting for SymExit...\nWaiting for SymInit...\n"));
    EXPECT_EQ(sH, 7);
}

TEST_F(ThawCommitSession, session_lines_are_traces) {
    set_level(1);
    EXPECT_EQ(TimeFinder_thaw_commit(new_device()), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(ThawCommitSession, process_without_a_session_ends_none) {
    sH = -1;
    EXPECT_EQ(TimeFinder_thaw_commit(new_device()), 0);
    EXPECT_EQ(array.calls_of("SymExit"), test::Lines{});
    EXPECT_EQ(array.calls_of("SymInitV").size(), 1U);
}

TEST_F(ThawCommitSession, session_that_does_not_end_keeps_every_object_from_being_processed) {
    hdef *h = new_split_device("00A1", "01A1");
    h->pminfo_list->lock_set = 1;
    give_transfer_file(h, "/tmp/EMCTXtest");
    array.script("SymExit", {33});
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3,
                   "TimeFinder_thaw_commit: SymAPI call to SymExit failed with code 33 "
                   "(array error 33)");
    EXPECT_EQ(array.calls_of("SymInitV").size(), 1U);
    EXPECT_EQ(array.calls_of("SymDevSync"), test::Lines{});
    EXPECT_EQ(controls(), test::Lines{});
    EXPECT_EQ(h->pminfo_list->lock_set, 1);
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
    EXPECT_EQ(sH, 7);
}

TEST_F(ThawCommitSession, session_that_does_not_open_fails_the_call) {
    hdef *h = new_split_device("00A1", "01A1");
    array.script("SymInitV", {44, 44});
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3,
                   "TimeFinder_thaw_commit: SymAPI call to SymInit failed with code 11 "
                   "(array error 11)");
    EXPECT_EQ(array.calls_of("SymDevSync"), test::Lines{});
    EXPECT_EQ(sH, -1);
    EXPECT_TRUE(has_no_capture_files(h));  // they go first, whatever comes of the call
}

// The message of the call that the framework has to know of comes last.
TEST_F(ThawCommitSession, that_neither_ends_nor_opens_is_told_as_one_that_does_not_open) {
    hdef *h = new_split_device("00A1", "01A1");
    array.script("SymExit", {33});
    array.script("SymInitV", {44, 44});
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    const std::string last =
        "TimeFinder_thaw_commit: SymAPI call to SymInit failed with code 11 (array error 11)";
    expect_failure(3, last);
    EXPECT_EQ(
        whole_log(),
        "TimeFinder_thaw_commit: SymAPI call to SymExit failed with code 33 (array error 33)\n"
        "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 44 (array error 44).\n" +
            last + "\n");
    EXPECT_EQ(array.calls_of("SymDevSync"), test::Lines{});
    EXPECT_EQ(controls(), test::Lines{});
    EXPECT_EQ(sH, -1);
}

TEST_F(ThawCommitSession, without_a_library_that_can_be_loaded_is_code_1) {
    hdef *h = new_split_device("00A1", "01A1");
    std::filesystem::remove_all("/usr/symcli");
    emc_tf_closeSymapiLibrary();
    emc_tf_DSO_open = 0;
    sH = -1;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3,
                   "TimeFinder_thaw_commit: SymAPI call to SymInit failed with code 1 (unknown)");
    ASSERT_EQ(test::log_lines().size(), 2U);
    EXPECT_TRUE(
        test::log_lines()[0].starts_with("emc_tf__SymLink: Unable to open shared library "));
    EXPECT_EQ(sH, -1);
    EXPECT_EQ(emc_tf_DSO_open, 0);
}

}  // namespace
