// Opening a session: the database, its first use, and the second try without options.
#include <sys/stat.h>

#include "tests/support/fake_array.h"
#include "tests/symapi/symapi_fixture.h"

namespace test {
namespace {

class SessionInit : public Symapi {
  protected:
    SessionInit() { sH = -1; }  // the fake array has opened one

    int32_t init(int32_t mode_index = 2, int32_t link = 1) {
        return emc_tf__SymInit(database, &session, mode_index, link);
    }
    static void add_database() { write_file(database, "arrays"); }
    std::string calls() const {
        std::string text;
        for (const std::string &call : array.calls) text += call + "\n";
        return text;
    }

    FakeArray array;
    int32_t session = -2;
};

const std::string with_options = " options 106 api 0x5000000\n";
const std::string without_options = " options null api 0x5000000\n";
const std::string init_call = "SymInitV /var/symapi/db/symapi_db.bin mode ";

TEST_F(SessionInit, opens_the_session_with_one_call_when_the_database_is_there) {
    add_database();
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(session, 7);
    EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + "3" + with_options);
    EXPECT_EQ(whole_log(), "emc_tf__SymInit:  SymApiVersion = 5000000 (V5.0.0.0).\n");
    expect_no_failure();
}

TEST_F(SessionInit, makes_no_folder_when_the_database_is_there_under_another_name) {
    write_file("/var/lib/other.bin", "arrays");
    EXPECT_EQ(emc_tf__SymInit("/var/lib/other.bin", &session, 2, 1), 0);
    EXPECT_FALSE(exists("/var/symapi"));
    EXPECT_EQ(calls(), "SymApiVersion\nSymInitV /var/lib/other.bin mode 3" + with_options);
}

TEST_F(SessionInit, tries_once_more_without_options_when_the_first_call_is_refused) {
    add_database();
    array.script("SymInitV", {77});
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(session, 7);
    EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + "3" + with_options + init_call + "3" +
                           without_options);
    expect_no_failure();
}

TEST_F(SessionInit, reports_the_second_code_when_both_calls_are_refused) {
    add_database();
    array.script("SymInitV", {77, 78});
    EXPECT_EQ(init(), 11);
    expect_failure(12, "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 78 (array error 78).");
    EXPECT_EQ(session, -2) << "the caller's handle is written only on success";
}

TEST_F(SessionInit, maps_the_mode_index_to_the_librarys_mode) {
    add_database();
    const std::pair<int32_t, int> modes[] = {{0, 0}, {1, 4}, {2, 3}, {3, 0}, {-1, 0}, {99, 0}};
    for (const auto &[index, mode] : modes) {
        array.calls.clear();
        EXPECT_EQ(init(index), 0);
        EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + std::to_string(mode) + with_options);
    }
}

TEST_F(SessionInit, gives_cleared_options_of_version_106) {
    add_database();
    static SymInitOptions seen;
    p_emc_tf_SymInitV = [](const char *, int, int32_t *, SymInitOptions *given, uint32_t) {
        seen = *given;
        return 0;
    };
    memset(&seen, 0x55, sizeof seen);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(seen.version, 106);
    for (const int32_t word : seen.reserved) EXPECT_EQ(word, 0);
}

TEST_F(SessionInit, a_version_that_cannot_be_read_is_0_and_unknown) {
    add_database();
    array.script("SymApiVersion", {5});
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(logged("emc_tf__SymInit:  SymApiVersion = 0 (unknown)."));
    EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + "3 options 106 api 0x0\n");
}

TEST_F(SessionInit, the_version_line_belongs_to_level_2) {
    add_database();
    set_level(1);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(SessionInit, takes_error_texts_from_the_sessions_own_handle_not_from_the_new_one) {
    add_database();
    static int32_t asked;
    asked = 0;
    p_emc_tf_SymPerror = [](int32_t handle, int) {
        asked = handle;
        return "text";
    };
    array.script("SymInitV", {77, 78});
    EXPECT_EQ(init(), 11);
    EXPECT_EQ(asked, -1);
}

TEST_F(SessionInit, without_a_database_makes_the_folder_and_lets_the_library_discover_first) {
    make_folders("/var/symapi");
    const mode_t old = umask(0);
    EXPECT_EQ(init(), 0);
    umask(old);
    EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + "4" + with_options +
                           "SymDiscover 7 0\nSymExit 7 0\n" + init_call + "3" + with_options);
    struct stat status = {};
    ASSERT_EQ(stat(database_folder, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0644U) << "without search permission, as it always was";
    EXPECT_EQ(session, 7);
}

TEST_F(SessionInit, the_folders_mode_is_less_the_processes_umask_which_stays) {
    make_folders("/var/symapi");
    const mode_t old = umask(077);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(umask(old), 077U);
    struct stat status = {};
    ASSERT_EQ(stat(database_folder, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0600U);
}

TEST_F(SessionInit, a_folder_that_is_there_without_the_database_is_no_failure) {
    make_folders(database_folder);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + "4" + with_options +
                           "SymDiscover 7 0\nSymExit 7 0\n" + init_call + "3" + with_options);
    expect_no_failure();
}

TEST_F(SessionInit, a_folder_that_cannot_be_made_is_a_failure_before_any_session) {
    EXPECT_EQ(init(), 11);  // "/var/symapi" is missing too
    expect_failure(12, "emc_tf__SymInit: Unable to create symdb directory - errno = 2.");
    EXPECT_EQ(calls(), "SymApiVersion\n");
    EXPECT_EQ(session, -2);
}

TEST_F(SessionInit, makes_no_folder_when_the_database_cannot_be_looked_at_for_another_reason) {
    write_file("/var/symapi/db", "a file, so that the look-up ends with ENOTDIR");
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + "4" + with_options +
                           "SymDiscover 7 0\nSymExit 7 0\n" + init_call + "3" + with_options);
}

TEST_F(SessionInit, makes_no_folder_either_when_it_is_missing_but_the_reason_is_another) {
    EXPECT_EQ(emc_tf__SymInit(std::string(5000, 'x').c_str(), &session, 2, 1), 0);
    EXPECT_FALSE(exists("/var/symapi"));
    EXPECT_EQ(array.calls_of("SymDiscover").size(), 1U);
}

TEST_F(SessionInit, the_first_use_tries_once_more_with_the_mapped_mode_and_without_options) {
    make_folders(database_folder);
    array.script("SymInitV", {77});
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + "4" + with_options + init_call + "3" +
                           without_options + "SymDiscover 7 0\nSymExit 7 0\n" + init_call + "3" +
                           with_options);
}

TEST_F(SessionInit, a_first_use_that_is_refused_twice_is_a_failure) {
    make_folders(database_folder);
    array.script("SymInitV", {77, 79});
    EXPECT_EQ(init(), 11);
    expect_failure(12, "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 79 (array error 79).");
    EXPECT_TRUE(array.calls_of("SymDiscover").empty());
}

TEST_F(SessionInit, a_discovery_that_fails_is_a_failure) {
    make_folders(database_folder);
    array.script("SymDiscover", {80});
    EXPECT_EQ(init(), 11);
    expect_failure(12, "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 80 (array error 80).");
    EXPECT_EQ(array.calls_of("SymInitV").size(), 1U);
    EXPECT_TRUE(array.calls_of("SymExit").empty());
    EXPECT_EQ(session, -2);
}

// A loaded library that lacks a function is one whose call fails with code 14.

const std::string failed_with_14 =
    "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 14 (array error 14).";

TEST_F(SessionInit, a_library_without_SymInitV_opens_no_session) {
    add_database();
    p_emc_tf_SymInitV = nullptr;
    EXPECT_EQ(init(), 11);
    expect_failure(12, failed_with_14);
    EXPECT_EQ(calls(), "SymApiVersion\n");
    EXPECT_EQ(session, -2);
}

TEST_F(SessionInit, a_library_without_SymPerror_has_no_text_for_its_code) {
    add_database();
    p_emc_tf_SymInitV = nullptr;
    p_emc_tf_SymPerror = nullptr;
    EXPECT_EQ(init(), 11);
    expect_failure(12, "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 14 (unknown).");
}

TEST_F(SessionInit, a_library_without_SymDiscover_cannot_be_used_first) {
    make_folders(database_folder);
    p_emc_tf_SymDiscover = nullptr;
    EXPECT_EQ(init(), 11);
    expect_failure(12, failed_with_14);
    EXPECT_EQ(calls(), "SymApiVersion\n" + init_call + "4" + with_options);
    EXPECT_EQ(session, -2);
}

TEST_F(SessionInit, the_end_of_the_first_use_may_fail) {
    make_folders(database_folder);
    array.script("SymExit", {81});
    EXPECT_EQ(init(), 0);
    expect_no_failure();
}

TEST_F(SessionInit, without_a_library_and_without_leave_to_load_it_the_answer_is_1) {
    install_library();
    emc_tf_DSO_open = 0;
    EXPECT_EQ(init(2, 0), 1);
    EXPECT_EQ(emc_tf_DSO_open, 0);
    EXPECT_EQ(calls() + whole_log(), "");
    expect_no_failure();
}

TEST_F(SessionInit, without_a_library_that_can_be_loaded_the_answer_is_1_after_a_report) {
    emc_tf_DSO_open = 0;
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(errnum, 3);
    EXPECT_TRUE(std::string(errmsg).starts_with("emc_tf__SymLink: Unable to open shared library"));
    EXPECT_EQ(emc_tf_DSO_open, 0);
}

TEST_F(SessionInit, loads_the_library_when_it_may) {
    FakeLibrary &library = install_library();
    add_database();
    emc_tf_DSO_open = 0;
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(emc_tf_DSO_open, 1);
    EXPECT_EQ(session, 3);
    EXPECT_EQ(library.inits, 1);
    EXPECT_TRUE(logged("Linking file /usr/symcli/shlib/libsymapi.so, 2."));
}

TEST_F(SessionInit, a_loaded_library_is_not_loaded_again) {
    add_database();
    EXPECT_EQ(init(2, 0), 0);
    EXPECT_FALSE(logged("Linking file /usr/symcli/shlib/libsymapi.so, 2."));
}

}  // namespace
}  // namespace test
