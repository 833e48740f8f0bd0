// Every function of the interface, through the library that a host loads and a daemon of its own.
// Needs root: the devices are loop devices.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "lab/array/model/codes.h"
#include "tests/lab_array/array_daemon.h"
#include "tests/support/private_root.h"

namespace {

using nlohmann::json;
using test::ArrayDaemon;
namespace code = lab::code;

class HostLibraryNeedsRoot : public test::WithArray {
  protected:
    int init(int mode, SymInitOptions *options = nullptr, uint32_t version = 0x05000000,
             const char *file = "/tmp/symapi_db.bin") {
        int32_t opened = -1;
        const int answer = library->SymInitV(file, mode, &opened, options, version);
        if (answer == 0) library->SymExit(opened, 0);
        return answer;
    }
    std::string list(int (*function)(int32_t, void **)) {
        void *text = nullptr;
        EXPECT_EQ(function(session, &text), 0);
        const std::string found = text != nullptr ? static_cast<char *>(text) : "";
        EXPECT_EQ(library->SymFree(text), 0);
        return found;
    }
};

TEST_F(HostLibraryNeedsRoot, init_accepts_modes_0_3_and_4_and_an_options_record_of_version_106) {
    SymInitOptions options = {};
    options.version = SYM_INIT_OPTIONS_VERSION;
    EXPECT_EQ(init(0, &options), 0);
    EXPECT_EQ(init(3), 0);
    EXPECT_EQ(init(4, &options), 0);
    EXPECT_EQ(init(1), code::bad_mode);
    options.version = 105;
    EXPECT_EQ(init(3, &options), code::bad_options);
}

TEST_F(HostLibraryNeedsRoot, init_wants_the_version_that_the_library_reports) {
    EXPECT_EQ(init(3, nullptr, 0x04020099), code::bad_api_version);
    EXPECT_EQ(init(3, nullptr, 0), 0);  // the number of a host that could not learn it
}

TEST_F(HostLibraryNeedsRoot, init_without_a_database_needs_mode_4) {
    EXPECT_EQ(init(3, nullptr, 0x05000000, "/tmp/none.bin"), code::database_missing);
    EXPECT_EQ(init(0, nullptr, 0x05000000, "/tmp/none.bin"), code::database_missing);
    EXPECT_EQ(init(4, nullptr, 0x05000000, "/tmp/none.bin"), 0);
    EXPECT_FALSE(test::exists("/tmp/none.bin"));  // discovery makes it
}

TEST_F(HostLibraryNeedsRoot, discovery_writes_the_arrays_and_devices_into_the_database) {
    EXPECT_EQ(test::read_file(database),
              "tfarray 1\n"
              "array 000184500123\n"
              "standard 000184500123 00A1 /dev/qz/dmp/p0 /dev/qz/rdmp/p0\n"
              "standard 000184500123 00A2 /dev/emcpowera /dev/sdc /dev/sdd\n"
              "bcv 000184500123 01A1 /dev/sdq\n"
              "bcv 000184500123 01A2 /dev/sdr\n");
}

TEST_F(HostLibraryNeedsRoot, discovery_that_cannot_write_the_database_says_so) {
    int32_t other = -1;
    ASSERT_EQ(library->SymInitV("/nonexistent/db.bin", 4, &other, nullptr, 0), 0);
    EXPECT_EQ(library->SymDiscover(other, 0), code::database_unwritable);
    EXPECT_EQ(library->SymExit(other, 0), 0);
}

TEST_F(HostLibraryNeedsRoot, discovery_whose_answer_is_lost_has_written_the_database) {
    test::write_file(database, "old");
    fault({{"function", "SymDiscover"}, {"code", 77}});
    EXPECT_EQ(library->SymDiscover(session, 0), 77);
    EXPECT_EQ(test::read_file(database), "old");
    fault({{"function", "SymDiscover"}, {"code", 78}, {"after", true}});
    EXPECT_EQ(library->SymDiscover(session, 0), 78);
    EXPECT_NE(test::read_file(database), "old");
}

TEST_F(HostLibraryNeedsRoot, version_and_patch_are_what_the_administrator_set) {
    settings({{"version", 0x04020099}, {"patch", "P42"}});
    uint32_t number = 0;
    const char *text = nullptr;
    EXPECT_EQ(library->SymApiVersion(&number, &text), 0);
    EXPECT_EQ(number, 0x04020099u);
    EXPECT_STREQ(text, "V4.2-153");
    EXPECT_EQ(library->SymApiPatch(&text), 0);
    EXPECT_STREQ(text, "P42");
}

TEST_F(HostLibraryNeedsRoot, a_closed_session_is_told_from_one_that_never_was) {
    EXPECT_EQ(library->SymExit(session, 0), 0);
    EXPECT_EQ(library->SymExit(session, 0), code::session_closed);
    SymDevice device;
    EXPECT_EQ(library->SymPdevShow(session, "/dev/sdq", &device), code::session_closed);
    EXPECT_EQ(library->SymPdevShow(4711, "/dev/sdq", &device), code::session_unknown);
    EXPECT_EQ(library->SymPdevShow(-1, "/dev/sdq", &device), code::session_unknown);
    EXPECT_EQ(library->SymPrefsSet(session, 1, 0), code::session_closed);
    EXPECT_EQ(control("00A1", "01A1", 1), code::session_closed);
}

TEST_F(HostLibraryNeedsRoot, a_device_is_shown_by_any_of_its_paths) {
    for (const char *path : {"/dev/qz/dmp/p0", "/dev/qz/rdmp/p0"}) {
        SymDevice device;
        ASSERT_EQ(library->SymPdevShow(session, path, &device), 0) << path;
        EXPECT_STREQ(device.sym_devname, "00A1");
        EXPECT_STREQ(device.symid, ArrayDaemon::symid);
        EXPECT_STREQ(device.pdevname, "/dev/qz/dmp/p0");
        EXPECT_STREQ(device.dgname, "dg");
        ASSERT_EQ(device.bcv_count, 2);
        EXPECT_STREQ(device.bcvs[0].bcvdev_sym_devname, "01A1");
        EXPECT_EQ(device.bcvs[0].bcv_pair_state, 5);
    }
}

TEST_F(HostLibraryNeedsRoot, a_device_is_shown_by_its_name_also_when_this_host_does_not_see_it) {
    SymDevice device;
    ASSERT_EQ(library->SymDevShow(session, ArrayDaemon::symid, "01A1", &device), 0);
    EXPECT_STREQ(device.pdevname, "/dev/sdq");
    EXPECT_STREQ(device.ldevname, "TSR-BCV");
    ASSERT_EQ(library->SymDevShow(session, ArrayDaemon::symid, "01B1", &device), 0);
    EXPECT_STREQ(device.pdevname, "");
}

TEST_F(HostLibraryNeedsRoot, a_failed_show_leaves_the_record_alone) {
    SymDevice device = {};
    snprintf(device.symid, sizeof device.symid, "untouched");
    EXPECT_EQ(library->SymPdevShow(session, "/dev/sdz", &device), code::path_unknown);
    EXPECT_EQ(library->SymDevShow(session, ArrayDaemon::symid, "0FFF", &device),
              code::device_unknown);
    EXPECT_EQ(library->SymDevShow(session, "000000000000", "00A1", &device), code::array_unknown);
    EXPECT_STREQ(device.symid, "untouched");
}

TEST_F(HostLibraryNeedsRoot, a_refresh_fails_where_a_show_would) {
    EXPECT_EQ(library->SymPdevSync(session, "/dev/qz/rdmp/p0", 1), 0);
    EXPECT_EQ(library->SymPdevSync(session, "/dev/sdz", 1), code::path_unknown);
    EXPECT_EQ(library->SymDevSync(session, ArrayDaemon::symid, "01A1", 2, 0), 0);
    EXPECT_EQ(library->SymDevSync(session, ArrayDaemon::symid, "0FFF", 2, 0), code::device_unknown);
    EXPECT_EQ(library->SymDevSync(session, "000000000000", "01A1", 2, 0), code::array_unknown);
}

TEST_F(HostLibraryNeedsRoot, alternate_ports_are_listed_and_one_that_is_down_cannot_be_opened) {
    daemon->ask({{"command", "path"}, {"host", "client1"}, {"path", "/dev/sdc"}, {"down", true}});
    SymDevice device;
    ASSERT_EQ(library->SymPdevShow(session, "/dev/emcpowera", &device), 0);
    ASSERT_EQ(device.port_count, 2);
    EXPECT_STREQ(device.ports[0], "/dev/sdc");
    EXPECT_STREQ(device.ports[1], "/dev/sdd");
    EXPECT_EQ(open(ArrayDaemon::node("/dev/sdc").c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_TRUE(test::put_number(ArrayDaemon::node("/dev/sdd"), 0, 5));
    daemon->ask({{"command", "path"}, {"host", "client1"}, {"path", "/dev/sdc"}, {"down", false}});
    EXPECT_EQ(test::number_at(ArrayDaemon::node("/dev/sdc"), 0), 5u);
}

TEST_F(HostLibraryNeedsRoot, one_pair_is_controlled_by_names) {
    EXPECT_EQ(control("00A1", "01A1", 1), 0);
    EXPECT_EQ(state(), 2);
    EXPECT_EQ(control("00A1", "01A1", 1), code::pair_established);
    EXPECT_EQ(control("00A1", "01A1", 2), 0);
    EXPECT_EQ(state(), 5);
    EXPECT_EQ(control("00A1", "01A1", 2), code::pair_split);
    EXPECT_EQ(control("00A1", "01A1", 5), 0);
    EXPECT_EQ(state(), 8);
    EXPECT_EQ(control("00A1", "01A1", 4), code::action_unknown);
    EXPECT_EQ(control("00A2", "01A1", 3), code::pair_unknown);
}

TEST_F(HostLibraryNeedsRoot, many_pairs_are_controlled_in_one_call) {
    const char *names[] = {"00A1", "00A2", nullptr}, *bcvs[] = {"01A1", "01A2", nullptr};
    const auto call = [&](int count, int action) {
        return library->SymDevListBcvControl(session, ArrayDaemon::symid, count, names, bcvs,
                                             action, 0x400800, 0);
    };
    EXPECT_EQ(call(2, 3), 0);
    EXPECT_EQ(state("00A1", "01A1"), 2);
    EXPECT_EQ(state("00A2", "01A2"), 2);
    EXPECT_EQ(call(2, 2), 0);
    EXPECT_EQ(state("00A2", "01A2"), 5);
    EXPECT_EQ(call(0, 3), code::bad_argument);
    EXPECT_EQ(call(1, 3), code::bad_argument);  // the list is not closed where its count says
}

TEST_F(HostLibraryNeedsRoot, a_list_with_a_pair_in_a_wrong_state_changes_nothing) {
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    const char *names[] = {"00A1", "00A2", nullptr}, *bcvs[] = {"01A1", "01A2", nullptr};
    EXPECT_EQ(library->SymDevListBcvControl(session, ArrayDaemon::symid, 2, names, bcvs, 2, 0, 0),
              code::pair_split);
    EXPECT_EQ(state("00A1", "01A1"), 2);
}

TEST_F(HostLibraryNeedsRoot, a_logical_device_and_a_group_are_controlled_by_name) {
    EXPECT_EQ(library->SymLdevBcvControl(session, "dg", "DEV00A1", 1, 0), 0);
    EXPECT_EQ(state("00A1", "01A1"), 2);
    EXPECT_EQ(library->SymLdevBcvControl(session, "dg", "NONE", 1, 0), code::ldev_unknown);
    EXPECT_EQ(library->SymLdevBcvControl(session, "none", "X", 1, 0), code::group_unknown);
    EXPECT_EQ(library->SymLdevBcvControl(session, "dg", "TSR-BCV", 2, 0), 0);
    EXPECT_EQ(library->SymDgBcvControl(session, "dg", 3, 0), 0);
    EXPECT_EQ(state("00A1", "01A1"), 2);
    EXPECT_EQ(state("00A2", "01A2"), 2);
    EXPECT_EQ(library->SymDgBcvControl(session, "none", 3, 0), code::group_unknown);
    EXPECT_EQ(library->SymDgShow(session, "dg", nullptr), 0);
    EXPECT_EQ(library->SymDgShow(session, "none", nullptr), code::group_unknown);
}

TEST_F(HostLibraryNeedsRoot, lists_are_texts_that_the_caller_frees) {
    EXPECT_EQ(list(library->SymList), "000184500123\n");
    EXPECT_EQ(list(library->SymPdevList),
              "/dev/qz/dmp/p0 000184500123 00A1\n/dev/qz/rdmp/p0 000184500123 00A1\n"
              "/dev/emcpowera 000184500123 00A2\n/dev/sdc 000184500123 00A2\n"
              "/dev/sdd 000184500123 00A2\n/dev/sdq 000184500123 01A1\n"
              "/dev/sdr 000184500123 01A2\n");
    EXPECT_EQ(list(library->SymBcvPdevList),
              "/dev/sdq 000184500123 01A1\n/dev/sdr 000184500123 01A2\n");
    void *text = this;
    EXPECT_EQ(library->SymList(4711, &text), code::session_unknown);
    EXPECT_EQ(text, nullptr);
}

TEST_F(HostLibraryNeedsRoot, the_calls_without_a_result_need_a_session_and_no_more) {
    for (int (*function)(int32_t) :
         {library->SymCommit, library->SymInquiry, library->SymPing, library->SymStat}) {
        EXPECT_EQ(function(session), 0);
        EXPECT_EQ(function(4711), code::session_unknown);
    }
    EXPECT_EQ(library->SymSync(session, 2), 0);
    EXPECT_EQ(library->SymSync(4711, 2), code::session_unknown);
    EXPECT_EQ(library->SymPrefsSet(session, 1, 0), 0);
    EXPECT_EQ(library->SymPrefsSet(session, 0, 0), code::bad_argument);
    EXPECT_EQ(library->SymFree(nullptr), 0);
}

TEST_F(HostLibraryNeedsRoot, codes_have_texts_and_symbols) {
    EXPECT_STREQ(library->SymPerror(session, 0), "The call succeeded");
    EXPECT_STREQ(library->SymPerror(-1, code::pair_split), "The pair is split already");
    EXPECT_STREQ(library->SymErrorSymbol(1012), "ARRAY_SPLIT_IN_BACKGROUND");
    EXPECT_NE(library->SymPerror(-1, -99), nullptr);
}

TEST_F(HostLibraryNeedsRoot, null_arguments_are_answered_and_never_written_through) {
    SymDevice device;
    const char *text = nullptr;
    uint32_t number = 0;
    const char *const names[] = {"00A1", nullptr};
    EXPECT_EQ(library->SymInitV(nullptr, 4, &session, nullptr, 0), code::bad_argument);
    EXPECT_EQ(library->SymInitV("x", 4, nullptr, nullptr, 0), code::bad_argument);
    EXPECT_EQ(library->SymApiVersion(nullptr, &text), code::bad_argument);
    EXPECT_EQ(library->SymApiVersion(&number, nullptr), code::bad_argument);
    EXPECT_EQ(library->SymApiPatch(nullptr), code::bad_argument);
    EXPECT_EQ(library->SymPdevShow(session, nullptr, &device), code::bad_argument);
    EXPECT_EQ(library->SymPdevShow(session, "/dev/sdq", nullptr), code::bad_argument);
    EXPECT_EQ(library->SymDevShow(session, nullptr, "00A1", &device), code::bad_argument);
    EXPECT_EQ(library->SymDevSync(session, ArrayDaemon::symid, nullptr, 2, 0), code::bad_argument);
    EXPECT_EQ(library->SymPdevSync(session, nullptr, 1), code::bad_argument);
    EXPECT_EQ(library->SymLdevBcvControl(session, nullptr, "x", 1, 0), code::bad_argument);
    EXPECT_EQ(library->SymDgBcvControl(session, nullptr, 1, 0), code::bad_argument);
    EXPECT_EQ(library->SymDgShow(session, nullptr, nullptr), code::bad_argument);
    EXPECT_EQ(library->SymList(session, nullptr), code::bad_argument);
    EXPECT_EQ(
        library->SymDevListBcvControl(session, ArrayDaemon::symid, 1, names, nullptr, 3, 0, 0),
        code::bad_argument);
}

TEST_F(HostLibraryNeedsRoot, a_fault_before_the_effect_leaves_the_pair_alone) {
    fault({{"function", "SymDevBcvControl"}, {"device", "01A1"}, {"code", 77}});
    EXPECT_EQ(control("00A2", "01A2", 3), 0);  // another device
    EXPECT_EQ(control("00A1", "01A1", 3), 77);
    EXPECT_EQ(state(), 5);
    EXPECT_EQ(control("00A1", "01A1", 3), 0);  // once only
}

TEST_F(HostLibraryNeedsRoot, a_fault_after_the_effect_loses_only_the_answer) {
    fault({{"function", "SymDevBcvControl"}, {"after", true}, {"at", 2}});
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    EXPECT_EQ(control("00A1", "01A1", 2), code::scripted_fault);
    EXPECT_EQ(state(), 5);
}

TEST_F(HostLibraryNeedsRoot, a_fault_for_good_stays_until_it_is_cleared) {
    fault({{"function", "SymApiVersion"}, {"for_good", true}, {"code", 9}});
    uint32_t number = 0;
    const char *text = nullptr;
    EXPECT_EQ(library->SymApiVersion(&number, &text), 9);
    EXPECT_EQ(library->SymApiVersion(&number, &text), 9);
    daemon->ask({{"command", "fault clear"}});
    EXPECT_EQ(library->SymApiVersion(&number, &text), 0);
}

TEST_F(HostLibraryNeedsRoot, a_delayed_answer_comes_late_and_keeps_nobody_else_waiting) {
    fault({{"function", "SymPing"}, {"delay_ms", 300}});
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) _exit(library->SymPing(session) == 0 ? 0 : 1);
    while (daemon->ask({{"command", "show"}}).at("faults")[0].at("seen") == 0) {
    }
    EXPECT_EQ(state(), 5);  // another connection
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(290));
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
}

TEST_F(HostLibraryNeedsRoot, a_fault_of_an_unknown_function_is_refused) {
    EXPECT_THROW(fault({{"function", "SymNothing"}}), lab::CommandRefused);
}

TEST_F(HostLibraryNeedsRoot, a_split_that_finishes_in_the_background_answers_1012_meanwhile) {
    settings({{"background_ms", 3'600'000}});
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    EXPECT_EQ(state(), 5);
    EXPECT_EQ(control("00A1", "01A1", 3), 1012);
    EXPECT_EQ(control("00A1", "01A1", 3), 1012);
    advance(3600);
    EXPECT_EQ(control("00A1", "01A1", 3), 0);
}

TEST_F(HostLibraryNeedsRoot, a_synchronisation_takes_its_virtual_time) {
    daemon->ask({{"command", "clock"}, {"running", false}});
    settings({{"rate", 1}});  // 4 MiB take four seconds
    ASSERT_EQ(control("00A1", "01A1", 1), 0);
    EXPECT_EQ(state(), 1);
    EXPECT_EQ(daemon->ask({{"command", "show"}}).at("arrays")[0].at("pairs")[0].at("percent"), 0);
    EXPECT_EQ(control("00A1", "01A1", 2), code::pair_synchronising);
    advance(3);
    EXPECT_EQ(state(), 1);
    EXPECT_EQ(daemon->ask({{"command", "show"}}).at("arrays")[0].at("pairs")[0].at("percent"), 75);
    advance(1);
    EXPECT_EQ(state(), 2);
}

TEST_F(HostLibraryNeedsRoot, every_call_fails_with_a_code_when_there_is_no_array) {
    daemon->kill();
    SymDevice device;
    uint32_t number = 0;
    const char *text = nullptr;
    void *block = nullptr;
    EXPECT_EQ(library->SymPdevShow(session, "/dev/sdq", &device), code::not_connected);
    EXPECT_EQ(library->SymApiVersion(&number, &text), code::not_connected);
    EXPECT_EQ(init(4), code::not_connected);
    EXPECT_EQ(library->SymExit(session, 0), code::not_connected);
    EXPECT_EQ(library->SymPdevList(session, &block), code::not_connected);
    EXPECT_EQ(control("00A1", "01A1", 1), code::not_connected);
    EXPECT_STREQ(library->SymPerror(session, code::not_connected),
                 "The array cannot be reached from this host");
}

TEST_F(HostLibraryNeedsRoot, a_daemon_started_again_knows_everything_but_the_sessions) {
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    daemon->kill();
    daemon->start();
    EXPECT_EQ(library->SymPing(session), code::session_closed);
    ASSERT_EQ(library->SymInitV(database.c_str(), 3, &session, nullptr, 0), 0);
    EXPECT_EQ(state(), 2);
    EXPECT_EQ(control("00A1", "01A1", 2), 0);
    EXPECT_TRUE(daemon->ask({{"command", "check"}}).at("broken").empty());
}

}  // namespace
