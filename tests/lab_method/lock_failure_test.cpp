// Lock files that cannot be had. Permissions do not stop root, so read-only mounts and folders in
// the place of files do.
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>

#include "tests/support/world.h"

namespace test {
namespace {

constexpr char locks[] = "/usr/quill/tessera/online_util/fi_cntl";
constexpr char counters[] = "/usr/quill/tessera/online_util/db_cntl";
constexpr char lock_file[] = "/usr/quill/tessera/online_util/fi_cntl/__LOCKFILE__TSR_ARRAY";
constexpr char counter_file[] =
    "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_0001845001230000";
constexpr char no_lock[] = "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p0";

class LockInTheLab : public World {
  protected:
    void expect_not_locked(const std::string &logged) {
        const std::string before = picture();
        const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"});
        expect_failure(failed.at("freeze"), 3, no_lock);
        EXPECT_TRUE(failed.at("freeze").handle);
        EXPECT_TRUE(failed.at("freeze").logged(logged))
            << testing::PrintToString(failed.at("freeze").log);
        expect_success(failed.at("thaw"));
        expect_success(failed.at("thaw_commit"));
        EXPECT_EQ(picture(), before);
    }
    void make_read_only(const std::string &folder) {
        host("mount --bind " + folder + " " + folder + " && mount -o remount,bind,ro " + folder);
    }
    std::string saved(const std::string &name) const {
        std::ifstream in(exchange() / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
};

TEST_F(LockInTheLab, folder_without_permission_gives_no_lock_needs_root) {
    mount_source();
    make_read_only(locks);
    expect_not_locked(std::string("could not open file: ") + lock_file);
    host(std::string("umount ") + locks);
    expect_a_snapshot_succeeds();
}

TEST_F(LockInTheLab, counter_folder_without_permission_gives_no_lock_needs_root) {
    mount_source();
    make_read_only(counters);
    expect_not_locked(std::string("could not open file: ") + counter_file);
    host(std::string("umount ") + counters);
    expect_a_snapshot_succeeds();
}

TEST_F(LockInTheLab, counter_file_that_is_a_folder_gives_no_lock_needs_root) {
    mount_source();
    host(std::string("mkdir ") + counter_file);
    expect_not_locked(std::string("could not open file: ") + counter_file);
    host(std::string("rmdir ") + counter_file);
    expect_a_snapshot_succeeds();
}

TEST_F(LockInTheLab, counter_file_that_is_a_link_gives_no_lock_needs_root) {
    mount_source();
    host(std::string("echo precious >/root/precious && ln -s /root/precious ") + counter_file);
    expect_not_locked(std::string("could not open file: ") + counter_file);
    EXPECT_EQ(host("cat /root/precious"), "precious\n");
    host(std::string("rm ") + counter_file);
    expect_a_snapshot_succeeds();
}

TEST_F(LockInTheLab, counter_file_of_a_live_process_stays_its_own_needs_root) {
    mount_source();
    const std::string before = picture();
    const std::string counter = std::string(counter_file);
    // The second process takes its steps while the first, which holds the array, is alive.
    const Phase owner =
        phase({"freeze", "-", "/data", "/copy", "run", "cp " + counter + " /exchange/first", "run",
               "/exchange/tfphase /exchange/second 2 freeze - /data /copy rollback", "run",
               "cp " + counter + " /exchange/again", "ctl", "4", "commit", "thaw", "thaw_commit"});
    for (const Call &call : owner.calls) expect_success(call);
    ASSERT_EQ(saved("first").size(), 12U);
    EXPECT_EQ(saved("again"), saved("first"));
    const std::string report = saved("second");
    int32_t pid = 0;
    memcpy(&pid, saved("first").data(), sizeof pid);
    EXPECT_NE(report.find("log lock pid(" + std::to_string(pid) + ") != pid("), std::string::npos);
    EXPECT_TRUE(std::regex_search(
        report, std::regex("log lock pid\\([0-9]+\\) != pid\\([0-9]+\\): " + counter + "\n")));
    EXPECT_NE(report.find(std::string("step freeze\nstatus 11\nnumber 3\nhandle 1\nerrmsg ") +
                          no_lock + "\nlogmsg " + no_lock + "\n"),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("step thaw\nstatus 0\n"), std::string::npos);
    EXPECT_NE(report.find("step thaw_commit\nstatus 0\n"), std::string::npos);
    array("split 000184500123 00A1 01A1");
    EXPECT_EQ(picture(), before);
    expect_a_snapshot_succeeds();
}

TEST_F(LockInTheLab, counter_file_of_a_process_that_is_gone_is_taken_over_needs_root) {
    mount_source();
    const Phase left = phase({"freeze", "-", "/data", "/copy", "run",
                              std::string("cp ") + counter_file + " /exchange/left"});
    expect_success(left.at("freeze"));
    ASSERT_EQ(saved("left").size(), 12U);
    host("rm -f /tmp/QfMS*");
    const Phase next = phase({"freeze", "-", "/data", "/copy", "run",
                              std::string("cp ") + counter_file + " /exchange/taken", "rollback"});
    EXPECT_TRUE(
        next.at("freeze").logged(std::string("truncating leftover lock file: ") + counter_file));
    EXPECT_NE(saved("taken").substr(0, 4), saved("left").substr(0, 4));
    EXPECT_EQ(saved("taken").substr(4), std::string("\1\0\0\0\1\0\0\0", 8));
    expect_success(next.at("thaw_commit"));
    EXPECT_EQ(counter_files(), "");
}

}  // namespace
}  // namespace test
