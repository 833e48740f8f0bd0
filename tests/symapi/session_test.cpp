// The two ends of the method's session: init_tflib and end_session.
#include "tests/support/fake_array.h"
#include "tests/symapi/symapi_fixture.h"

namespace test {
namespace {

class InitLibrary : public Symapi {};

TEST_F(InitLibrary, loads_the_library_and_opens_the_session) {
    FakeLibrary &library = install_library();
    write_file(database, "arrays");
    EXPECT_EQ(init_tflib(), 0);
    EXPECT_EQ(sH, 3);
    EXPECT_EQ(emc_tf_DSO_open, 1);
    EXPECT_EQ(library.inits, 1);
    EXPECT_EQ(library.discoveries, 0);
    EXPECT_TRUE(logged("Waiting for SymInit..."));
    expect_no_failure();
}

TEST_F(InitLibrary, lets_the_library_discover_on_a_new_host) {
    FakeLibrary &library = install_library();
    make_folders("/var/symapi");
    EXPECT_EQ(init_tflib(), 0);
    EXPECT_EQ(library.inits, 2);
    EXPECT_EQ(library.discoveries, 1);
    EXPECT_EQ(library.exits, 1);
}

TEST_F(InitLibrary, reports_twice_when_there_is_no_library) {
    EXPECT_EQ(init_tflib(), 11);
    expect_failure(3, "init_tflib: Could not initialize with SymAPI");
    ASSERT_EQ(log_lines().size(), 3U);
    EXPECT_TRUE(log_lines()[1].starts_with("emc_tf__SymLink: Unable to open shared library"));
    EXPECT_EQ(log_lines()[2], "init_tflib: Could not initialize with SymAPI");
    EXPECT_EQ(emc_tf_DSO_open, 0);
    EXPECT_EQ(sH, -1);
}

TEST_F(InitLibrary, reports_twice_when_the_release_is_rejected) {
    install_library().version = 0x04020099;
    EXPECT_EQ(init_tflib(), 11);
    expect_failure(3, "init_tflib: Could not initialize with SymAPI");
    EXPECT_TRUE(logged("emc_tf__SymLink: Unsupported SYMAPI Version V5.0.0.7\n"));
    EXPECT_EQ(emc_tf_DSO_open, 0);
}

TEST_F(InitLibrary, tries_again_in_a_process_whose_first_try_failed) {
    write_file(database, "arrays");
    install_library().version = 0x04020099;
    EXPECT_EQ(init_tflib(), 11);
    let_go_of_library();
    EXPECT_EQ(init_tflib(), 0);  // the library starts anew, with its own version
    EXPECT_EQ(emc_tf_SymVersion, 0x0500);
}

class InitSession : public Symapi {
  protected:
    InitSession() {
        sH = -1;
        write_file(database, "arrays");
    }

    FakeArray array;
};

TEST_F(InitSession, a_loaded_library_without_a_version_is_reported) {
    emc_tf_SymVersion = 0;
    EXPECT_EQ(init_tflib(), 11);
    expect_failure(3, "init_tflib: Could not initialize with SymAPI");
    EXPECT_TRUE(array.calls.empty());
}

TEST_F(InitSession, after_the_first_freeze_the_version_is_no_longer_asked_for) {
    emc_clients = 1;
    emc_tf_SymVersion = 0;
    EXPECT_EQ(init_tflib(), 0);
    EXPECT_EQ(sH, 7);
}

TEST_F(InitSession, after_the_first_freeze_a_missing_library_shows_as_code_1) {
    emc_clients = 1;
    emc_tf_DSO_open = 0;
    EXPECT_EQ(init_tflib(), 11);
    expect_failure(3, "init_tflib: SymAPI call to SymInit failed with code 1 (array error 1)");
}

TEST_F(InitSession, while_a_client_needs_the_session_no_further_one_is_opened) {
    client_count = 1;
    EXPECT_EQ(init_tflib(), 0);
    EXPECT_EQ(sH, -1);
    EXPECT_TRUE(array.calls.empty());
    EXPECT_EQ(whole_log(), "");
}

TEST_F(InitSession, opens_with_mode_3_and_logs_the_wait_at_level_2) {
    EXPECT_EQ(init_tflib(), 0);
    EXPECT_EQ(array.calls.back(),
              "SymInitV /var/symapi/db/symapi_db.bin mode 3 options 106 api 0x5000000");
    EXPECT_EQ(whole_log(),
              "Waiting for SymInit...\n"
              "emc_tf__SymInit:  SymApiVersion = 5000000 (V5.0.0.0).\n");
    set_level(1);
    EXPECT_EQ(init_tflib(), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(InitSession, a_session_that_cannot_be_opened_gives_two_messages_and_error_number_3) {
    array.script("SymInitV", {77, 78});
    EXPECT_EQ(init_tflib(), 11);
    expect_failure(3, "init_tflib: SymAPI call to SymInit failed with code 11 (array error 11)");
    EXPECT_EQ(whole_log(),
              "Waiting for SymInit...\n"
              "emc_tf__SymInit:  SymApiVersion = 5000000 (V5.0.0.0).\n"
              "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 78 (array error 78).\n"
              "init_tflib: SymAPI call to SymInit failed with code 11 (array error 11)\n");
    EXPECT_EQ(sH, -1);
}

TEST_F(InitSession, a_database_folder_that_cannot_be_made_gives_two_messages_as_well) {
    std::filesystem::remove_all("/var/symapi");
    EXPECT_EQ(init_tflib(), 11);
    expect_failure(3, "init_tflib: SymAPI call to SymInit failed with code 11 (array error 11)");
    EXPECT_TRUE(logged("emc_tf__SymInit: Unable to create symdb directory - errno = 2."));
}

class EndSession : public Symapi {
  protected:
    FakeArray array;  // its session is 7
};

TEST_F(EndSession, ends_the_session_and_keeps_the_library) {
    EXPECT_EQ(tf::end_session("TimeFinder_freeze_commit"), 0);
    EXPECT_EQ(array.calls, std::vector<std::string>{"SymExit 7 0"});
    EXPECT_EQ(sH, -1);
    EXPECT_EQ(emc_tf_DSO_open, 1);
    EXPECT_EQ(whole_log(), "Waiting for SymExit...\n");
    expect_no_failure();
}

TEST_F(EndSession, logs_its_wait_at_level_2_only) {
    set_level(1);
    EXPECT_EQ(tf::end_session("TimeFinder_freeze_commit"), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(EndSession, a_failure_is_reported_in_the_callers_name_and_the_session_counts_as_ended) {
    static int32_t asked;
    p_emc_tf_SymPerror = [](int32_t handle, int) {
        asked = handle;
        return "busy";
    };
    array.script("SymExit", {82});
    EXPECT_EQ(tf::end_session("TimeFinder_thaw_commit"), 11);
    expect_failure(3, "TimeFinder_thaw_commit: SymAPI call to SymExit failed with code 82 (busy)");
    EXPECT_EQ(asked, 7);
    EXPECT_EQ(sH, -1);
}

TEST_F(EndSession, a_library_without_SymExit_is_a_failed_end) {
    p_emc_tf_SymExit = nullptr;
    EXPECT_EQ(tf::end_session("TimeFinder_freeze_commit"), 11);
    expect_failure(3,
                   "TimeFinder_freeze_commit: SymAPI call to SymExit failed with code 14 "
                   "(array error 14)");
    EXPECT_EQ(sH, -1);
}

}  // namespace
}  // namespace test
