// The array's library and the session with the array: found, old enough, begun once, ended once.
#include "conformance/contract.h"

namespace conformance {
namespace {

constexpr char library_path[] = "/usr/symcli/shlib/libsymapi.so";
constexpr char not_initialised[] = "init_tflib: Could not initialize with SymAPI";
constexpr char database[] = "/var/symapi/db";

class Session : public Contract {
  protected:
    // A freeze that does not reach its arguments: the handle stays what it was.
    Phase never_begun() { return run(Words{"foreign_handle"} + freeze()); }
    void release_is(const std::string &number) { array("version " + number + " --patch 0"); }
};

TEST_F(Session, without_the_arrays_library_does_not_begin) {
    contract("session: the library cannot be opened: QfMCmn0401N, then QfMEtf1030N, number 3, 11");
    host(std::string("mv ") + library_path + " /exchange/away");
    const Phase seen = never_begun();
    host(std::string("mv /exchange/away ") + library_path);
    fails(seen.at("freeze"), 3, not_initialised);
    handle_is(seen.at("freeze"), true);
    logs(seen.at("freeze"),
         "emc_tf__SymLink: Unable to open shared library /usr/symcli/shlib/libsymapi.so: "
         "/usr/symcli/shlib/libsymapi.so: cannot open shared object file: No such file or "
         "directory");
}

TEST_F(Session, with_release_4_2_153_does_not_begin) {
    contract("session: 0x0402 with a sub-level of 153 is rejected: QfMEtf1000N, QfMEtf1030N");
    release_is("0x04020099");
    const Phase seen = never_begun();
    release_is("0x05000000");
    fails(seen.at("freeze"), 3, not_initialised);
    handle_is(seen.at("freeze"), true);
    logs(seen.at("freeze"), "emc_tf__SymLink: emc_tf_SymVersion = 402 (<0x0500)");
    logs(seen.at("freeze"), "emc_tf__SymLink: Unsupported SYMAPI Version V4.2-153\\n");
}

TEST_F(Session, with_release_4_2_154_begins) {
    contract("session: 0x0402 with a sub-level of 154 is accepted");
    release_is("0x0402009A");
    const Phase seen = run(freeze() + commit() + release());
    release_is("0x05000000");
    all_succeed(seen);
}

TEST_F(Session, with_release_4_3_0_begins) {
    contract("session: an upper half above 0x0402 is accepted whatever the lower");
    release_is("0x04030000");
    const Phase seen = run(freeze() + commit() + release());
    release_is("0x05000000");
    all_succeed(seen);
}

TEST_F(Session, makes_the_folder_of_its_database_with_mode_644) {
    contract("session: no database: the folder is created with mode 0644, exactly that");
    host(std::string("rm -rf ") + database);
    all_succeed(run(freeze() + commit() + release()));
    is("mode", "644\n", host(std::string("stat -c %a ") + database));
    host(std::string("test -s ") + database + "/symapi_db.bin");
}

TEST_F(Session, fills_a_folder_that_has_no_database_in_it) {
    contract("session: an existing folder is no failure; the first-use pass runs");
    host(std::string("rm -rf ") + database + " && mkdir " + database);
    all_succeed(run(freeze() + commit() + release()));
    host(std::string("test -s ") + database + "/symapi_db.bin");
}

TEST_F(Session, leaves_a_database_that_is_there) {
    contract("session: with the database present no discovery runs");
    all_succeed(run(freeze() + release()));
    array("fault add SymDiscover");
    all_succeed(run(freeze() + commit() + release()));
    array("fault clear");
}

TEST_F(Session, that_the_array_refuses_is_told_twice) {
    contract("session: QfMEtf1020N with number 12, then QfMEtf1380N with number 3, by design");
    array("fault add SymInitV --for-good");
    const Phase seen = never_begun();
    array("fault clear");
    fails_beginning(seen.at("freeze"), 3,
                    "init_tflib: SymAPI call to SymInit failed with code 11 (");
    handle_is(seen.at("freeze"), true);
    is("first message", 1,
       seen.at("freeze").logged_part("emc_tf__SymInit: Failed - SymVersion = 1280, Error = 114 ("));
}

TEST_F(Session, is_opened_without_options_when_it_is_refused_with_them) {
    contract("session: SymInitV once more without the options record");
    array("fault add SymInitV");
    all_succeed(run(freeze() + commit() + release()));
    array("fault clear");
}

TEST_F(Session, that_failed_to_begin_is_not_tried_again_in_its_process) {
    contract("only the first freeze or rebuild of a process initialises the array's library");
    host(std::string("mv ") + library_path + " /exchange/away");
    const Phase seen =
        run(freeze() + shell(std::string("cp /exchange/away ") + library_path) + freeze());
    host(std::string("cp /exchange/away ") + library_path + "; rm -f /tmp/QfMS*");
    fails(seen.at("freeze", 0), 3, not_initialised);
    is("status of the second", 11, seen.at("freeze", 1).status);
    logs_not(seen.at("freeze", 1), "Linking file");
    host("rm -f /usr/quill/tessera/online_util/db_cntl/*");
}

TEST_F(Session, is_begun_by_a_rebuild_as_by_a_freeze) {
    contract("rebuild: the first call of the process initialises the array's library");
    run(freeze() + commit() + ckpt());
    const Phase seen = run(rebuild() + release());
    all_succeed(seen);
    logs(seen.at("rebuild"), "Waiting for SymInit...");
}

TEST_F(Session, is_opened_anew_by_the_thaw_commit) {
    contract("thaw commit: a session that is open is closed, and a new one opened");
    const Phase seen = run(freeze() + release());
    all_succeed(seen);
    logs(seen.at("thaw_commit"), "Waiting for SymExit...");
    logs(seen.at("thaw_commit"), "Waiting for SymInit...");
}

TEST_F(Session, that_cannot_be_ended_fails_the_commit_which_is_not_repeated) {
    contract("freeze commit: SymExit failed: number 3, 11; the process has committed all the same");
    const Phase seen = run(freeze() + shell("tfarray fault add SymExit >/dev/null") + commit() +
                           commit() + release());
    fails_beginning(seen.at("commit"), 3,
                    "TimeFinder_freeze_commit: SymAPI call to SymExit failed with code 114 (");
    logs(seen.at("commit"), "Split end");
    succeeds(seen.at("commit", 1));
    succeeds(seen.at("thaw_commit"));
}

}  // namespace
}  // namespace conformance
