// What keeps a freeze from reaching the array at all.
#include <future>

#include "tests/support/world.h"

namespace test {
namespace {

constexpr char no_symapi[] = "init_tflib: Could not initialize with SymAPI";

class SessionInTheLab : public World {
  protected:
    // A freeze that fails before there is a record, with the two messages of a failed link.
    void expect_no_link(const std::string &first_message) {
        const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"});
        expect_failure(failed.at("freeze"), 3, no_symapi);
        EXPECT_FALSE(failed.at("freeze").handle);
        EXPECT_TRUE(failed.at("freeze").logged(first_message))
            << first_message << "\nis not in: " << testing::PrintToString(failed.at("freeze").log);
        EXPECT_EQ(failed.calls.size(), 1U);
    }
};

class ConfigurationInTheLab : public World,
                              public testing::WithParamInterface<std::pair<const char *, int>> {};

TEST_P(ConfigurationInTheLab, of_garbage_is_refused_and_nothing_has_happened_needs_root) {
    const auto [garbage, parse_status] = GetParam();
    mount_source();
    const std::string before = picture();
    const Phase failed = phase({"freeze", garbage, "/data", "/copy", "rollback"});
    expect_failure(failed.at("freeze"), 7,
                   "TimeFinder_freeze: Parse error " + std::to_string(parse_status) +
                       " in config string: " + garbage);
    EXPECT_FALSE(failed.at("freeze").handle);
    EXPECT_EQ(failed.calls.size(), 1U);
    EXPECT_EQ(picture(), before);
    expect_a_snapshot_succeeds();
}

INSTANTIATE_TEST_SUITE_P(, ConfigurationInTheLab,
                         testing::Values(std::pair("garbage", 2), std::pair("\x01\xff%s%n", 2),
                                         std::pair("keep_fi=1,,", 3), std::pair("keep_fi=yes", 4),
                                         std::pair("sync_at_start=3", 8), std::pair("=1", 10)));

TEST_F(SessionInTheLab, without_the_array_library_does_not_start_needs_root) {
    mount_source();
    const std::string before = picture();
    host("mv /usr/symcli/shlib/libsymapi.so /usr/symcli/shlib/away");
    expect_no_link(
        "emc_tf__SymLink: Unable to open shared library /usr/symcli/shlib/libsymapi.so: "
        "/usr/symcli/shlib/libsymapi.so: cannot open shared object file: No such file or "
        "directory");
    EXPECT_EQ(picture(), before);
    host("mv /usr/symcli/shlib/away /usr/symcli/shlib/libsymapi.so");
    expect_a_snapshot_succeeds();
}

TEST_F(SessionInTheLab,
       with_sublevel_153_of_release_4_2_does_not_start_and_with_154_does_needs_root) {
    mount_source();
    const std::string before = picture();
    array("version 0x04020099 --patch 0");
    expect_no_link("emc_tf__SymLink: Unsupported SYMAPI Version V4.2-153\\n");
    EXPECT_EQ(picture(), before);
    array("version 0x0402009A --patch 0");
    expect_a_snapshot_succeeds();
}

TEST_F(SessionInTheLab, without_the_daemon_does_not_start_and_with_a_new_one_does_needs_root) {
    mount_source();
    const std::string before = picture();
    end_array();
    expect_no_link("emc_tf__SymLink: Unsupported SYMAPI Version unknown\\n");
    restart_array();
    EXPECT_EQ(picture(), before);
    expect_a_snapshot_succeeds();
}

TEST_F(SessionInTheLab, that_the_array_refuses_says_so_twice_needs_root) {
    mount_source();
    const std::string before = picture();
    array("fault add SymInitV --for-good");
    const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"});
    expect_failure(failed.at("freeze"), 3,
                   "init_tflib: SymAPI call to SymInit failed with code 11 (The array has no text "
                   "for this code)");
    EXPECT_TRUE(failed.at("freeze").logged(
        "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 114 (The array was told to fail this "
        "call)."));
    EXPECT_FALSE(failed.at("freeze").handle);
    EXPECT_EQ(picture(), before);
    array("fault clear");
    expect_a_snapshot_succeeds();
}

// The directory of the array's database cannot be made, or the file in it cannot be written.
class DatabaseInTheLab : public World {
  protected:
    void expect_no_session(const std::string &first_message) {
        const std::string before = picture();
        const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"});
        expect_failure(
            failed.at("freeze"), 3,
            "init_tflib: SymAPI call to SymInit failed with code 11 (The array has no text "
            "for this code)");
        EXPECT_TRUE(failed.at("freeze").logged(first_message))
            << testing::PrintToString(failed.at("freeze").log);
        EXPECT_FALSE(failed.at("freeze").handle);
        EXPECT_EQ(failed.calls.size(), 1U);
        EXPECT_EQ(picture(), before);
        host("umount /var/symapi");
        expect_a_snapshot_succeeds();
    }
};

TEST_F(DatabaseInTheLab, without_room_for_its_folder_opens_no_session_needs_root) {
    mount_source();
    host("mount -t tmpfs -o size=64k,nr_inodes=1 small /var/symapi");
    expect_no_session("emc_tf__SymInit: Unable to create symdb directory - errno = 28.");
}

TEST_F(DatabaseInTheLab, without_permission_for_its_folder_opens_no_session_needs_root) {
    mount_source();
    host("mount -t tmpfs -o ro small /var/symapi");
    expect_no_session("emc_tf__SymInit: Unable to create symdb directory - errno = 30.");
}

TEST_F(DatabaseInTheLab, without_room_for_its_file_opens_no_session_needs_root) {
    mount_source();
    host("mount -t tmpfs -o size=64k,nr_inodes=2 small /var/symapi && mkdir /var/symapi/db");
    expect_no_session(
        "emc_tf__SymInit: Failed - SymVersion = 1280, Error = 112 (The host's array database "
        "cannot "
        "be written).");
}

// A step in which the process says that it has come so far and waits to be let go on.
std::string wait_for_word(const std::string &name) {
    return "touch /exchange/" + name + "; while [ ! -e /exchange/" + name +
           ".go ]; do sleep 0.01; done";
}

// The lost session cannot be closed, and without a new one no lock is given back: the counter file
// stays behind, and the next process takes it over from the one that is gone.
TEST_F(SessionInTheLab, that_dies_with_the_daemon_fails_the_commit_needs_root) {
    mount_source();
    synchronise();
    std::future<Phase> running = std::async(std::launch::async, [this] {
        return phase({"freeze", "-", "/data", "/copy", "ctl", "4", "run", wait_for_word("frozen"),
                      "commit", "run", wait_for_word("failed"), "rollback"});
    });
    wait_for_file("frozen");
    end_array();
    make_file("frozen.go");
    wait_for_file("failed");
    restart_array();
    make_file("failed.go");
    const Phase failed = running.get();
    expect_failure(
        failed.at("commit"), 3,
        "emc_tf_split_prepare: SymAPI call to SymDevSync on device 01A1 failed with code "
        "103 (The array cannot be reached from this host)");
    expect_success(failed.at("thaw"));
    expect_failure(
        failed.at("thaw_commit"), 3,
        "TimeFinder_thaw_commit: SymAPI call to SymExit failed with code 102 (The session "
        "has been closed)");
    EXPECT_NE(counter_files(), "");
    EXPECT_EQ(pair_state(), 2);
    EXPECT_EQ(host("ls -A /tmp"), "");
    expect_a_snapshot_succeeds();
}

}  // namespace
}  // namespace test
