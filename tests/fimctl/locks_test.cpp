// locks: who owns the arrays' mirrors, read without ever standing in the method's way.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <csignal>
#include <cstring>
#include <nlohmann/json.hpp>

#include "fimctl/inspect/lock_files.h"
#include "fimctl/paths.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using test::Ended;
using Json = nlohmann::json;

const std::string group = "0001845001230000";
const std::string counter_path = std::string(fimctl::path::counter_folder) + "/__LOCKFILE_" + group;

std::string fields(std::vector<int32_t> values) {
    std::string bytes(values.size() * sizeof(int32_t), '\0');
    memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

// A number that no process has: the child with it was waited for.
pid_t dead_process() {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

// A process that holds the host-wide lock.
class LockHolder {
  public:
    LockHolder() {
        int ready[2] = {-1, -1};
        EXPECT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0) hold(ready[1]);
        char word = 0;
        EXPECT_EQ(read(ready[0], &word, 1), 1);
        close(ready[0]);
        close(ready[1]);
    }
    ~LockHolder() { end(); }
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;

    pid_t pid() const { return pid_; }
    void end() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

  private:
    [[noreturn]] static void hold(int ready) {
        const int file = open(fimctl::path::host_lock_file, O_RDWR);
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        if (fcntl(file, F_SETLK, &lock) != 0 || write(ready, "x", 1) != 1) _exit(1);
        for (;;) pause();
    }

    pid_t pid_ = -1;
};

class Locks : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        test::make_folders(fimctl::path::host_lock_folder);
        test::make_folders(fimctl::path::counter_folder);
    }
    static void write_counter(const std::vector<int32_t> &values) {
        test::write_file(counter_path, fields(values), 0600);
    }
    Json json() {
        const Ended ended = fimctl({"locks", "--json"});
        EXPECT_EQ(ended.status, 0) << ended.err;
        EXPECT_EQ(ended.err, "");
        return Json::parse(ended.out);
    }
    Json counter() {
        const Json all = json().at("counters");
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? Json() : all[0];
    }
    static std::string stamp(const std::string &path) {
        struct stat status = {};
        stat(path.c_str(), &status);
        return std::to_string(status.st_ino) + " " + std::to_string(status.st_size) + " " +
               std::to_string(status.st_mtim.tv_nsec) + " " + std::to_string(status.st_mode);
    }
};

TEST_F(Locks, a_host_without_lock_files_says_that_nothing_is_owned) {
    const Ended ended = fimctl({"locks"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out,
              "host lock: free (no snapshot has been taken on this host yet)\n"
              "no counter file: no array is owned by anybody\n");
    EXPECT_FALSE(test::exists(fimctl::path::host_lock_file)) << "looking makes no file";
}

TEST_F(Locks, a_host_without_the_folders_is_told_the_same) {
    rmdir(fimctl::path::counter_folder);
    rmdir(fimctl::path::host_lock_folder);
    const Json all = json();
    EXPECT_EQ(all["counters"].size(), 0U);
    EXPECT_FALSE(all["host_lock"]["exists"].get<bool>());
}

TEST_F(Locks, a_living_owner_is_named_with_its_program_its_start_and_its_count) {
    write_counter({getpid(), 3, 1});
    const Json one = counter();
    EXPECT_EQ(one["group"], group);
    EXPECT_EQ(one["owner"], "alive");
    EXPECT_EQ(one["pid"], getpid());
    EXPECT_EQ(one["count"], 3);
    EXPECT_EQ(one["is_split"], true);
    EXPECT_NE(one["command"].get<std::string>().find("test_fimctl"), std::string::npos);
    EXPECT_EQ(one["since"], fimctl::utc(fimctl::process_info(getpid()).started));
    EXPECT_NE(one["advice"].get<std::string>().find("wait until process"), std::string::npos);
}

TEST_F(Locks, an_owner_that_ended_is_told_as_gone_since_the_file_was_written) {
    const pid_t dead = dead_process();
    write_counter({dead, 2, 1});
    const utimbuf long_ago = {1000000000, 1000000000};
    utime(counter_path.c_str(), &long_ago);
    const Json one = counter();
    EXPECT_EQ(one["owner"], "gone");
    EXPECT_EQ(one["since"], "2001-09-09T01:46:40Z");
    EXPECT_NE(one["advice"].get<std::string>().find("takes it over"), std::string::npos);
    const Ended ended = fimctl({"locks"});
    EXPECT_NE(ended.out.find(std::to_string(dead) + " (gone)"), std::string::npos) << ended.out;
    EXPECT_NE(ended.out.find("nothing to do"), std::string::npos) << ended.out;
}

TEST_F(Locks, an_owner_that_was_not_waited_for_still_owns) {
    const pid_t zombie = fork();
    if (zombie == 0) _exit(0);
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
    write_counter({zombie, 1, 1});
    EXPECT_EQ(counter()["owner"], "alive") << "the method asks the same way";
    waitpid(zombie, nullptr, 0);
    EXPECT_EQ(counter()["owner"], "gone");
}

TEST_F(Locks, a_number_that_another_process_has_by_now_is_recognised) {
    write_counter({getpid(), 1, 1});
    const utimbuf before = {fimctl::process_info(getpid()).started - 60,
                            fimctl::process_info(getpid()).started - 60};
    utime(counter_path.c_str(), &before);
    const Json one = counter();
    EXPECT_EQ(one["owner"], "replaced");
    EXPECT_NE(one["advice"].get<std::string>().find("rm " + counter_path), std::string::npos);
}

TEST_F(Locks, an_empty_and_a_short_file_are_legal) {
    test::write_file(counter_path, "", 0600);
    Json one = counter();
    EXPECT_EQ(one["owner"], "nobody");
    EXPECT_TRUE(one["count"].is_null());
    EXPECT_EQ(one["advice"], "nothing to do: it is free");
    write_counter({getpid()});
    one = counter();
    EXPECT_EQ(one["owner"], "alive");
    EXPECT_TRUE(one["count"].is_null());
    write_counter({getpid(), -1});
    one = counter();
    EXPECT_EQ(one["count"], -1) << "a clear too many leaves it so";
    EXPECT_EQ(one["is_split"], false);
}

TEST_F(Locks, a_link_or_a_folder_in_a_counter_file_s_place_is_not_followed) {
    test::write_file("/elsewhere", fields({getpid(), 1, 1}));
    ASSERT_EQ(symlink("/elsewhere", counter_path.c_str()), 0);
    Json one = counter();
    EXPECT_NE(one["trouble"], "");
    EXPECT_EQ(one["pid"], 0);
    unlink(counter_path.c_str());
    ASSERT_EQ(mkfifo(counter_path.c_str(), 0600), 0);
    one = counter();
    EXPECT_EQ(one["trouble"], "not a regular file");
    EXPECT_NE(one["advice"].get<std::string>().find("ls -l"), std::string::npos);
}

TEST_F(Locks, of_a_counter_file_that_cannot_be_read_no_instant_is_told) {
    ASSERT_EQ(mkfifo(counter_path.c_str(), 0600), 0);
    const Ended ended = fimctl({"locks"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out.find("1970"), std::string::npos) << ended.out;
    EXPECT_NE(ended.out.find("not a regular file"), std::string::npos) << ended.out;
}

TEST_F(Locks, who_holds_the_host_wide_lock_is_named_and_not_disturbed) {
    test::write_file(fimctl::path::host_lock_file, "", 0600);
    LockHolder holder;
    const Json lock = json()["host_lock"];
    EXPECT_EQ(lock["holder"]["pid"], holder.pid());
    EXPECT_NE(fimctl({"locks"}).out.find("held by process " + std::to_string(holder.pid())),
              std::string::npos);
    holder.end();
    EXPECT_TRUE(json()["host_lock"]["holder"].is_null());
}

TEST_F(Locks, looking_changes_no_file_and_holds_no_lock) {
    test::write_file(fimctl::path::host_lock_file, "", 0600);
    write_counter({dead_process(), 2, 1});
    const std::string before = stamp(counter_path) + stamp(fimctl::path::host_lock_file);
    fimctl({"locks"});
    EXPECT_EQ(stamp(counter_path) + stamp(fimctl::path::host_lock_file), before);
    EXPECT_FALSE(test::exists(state_)) << "nor is a catalogue made";
}

TEST_F(Locks, the_columns_are_aligned_and_end_without_blanks) {
    write_counter({getpid(), 3, 1});
    const std::string out = fimctl({"locks"}).out;
    EXPECT_EQ(out.find(" \n"), std::string::npos) << out;
    const size_t head = out.find("OWNER"), row = out.find(std::to_string(getpid()));
    EXPECT_EQ(head - out.rfind('\n', head), row - out.rfind('\n', row)) << out;
}

TEST_F(Locks, a_left_counter_file_is_removed_only_when_its_owner_is_gone) {
    std::string why;
    write_counter({getppid(), 1, 1});
    EXPECT_FALSE(fimctl::remove_left_counter(counter_path, why));
    EXPECT_NE(why.find("wait until"), std::string::npos) << why;
    EXPECT_TRUE(test::exists(counter_path));
    write_counter({dead_process(), 1, 1});
    EXPECT_TRUE(fimctl::remove_left_counter(counter_path, why)) << why;
    EXPECT_FALSE(test::exists(counter_path));
    EXPECT_TRUE(test::exists(fimctl::path::host_lock_file)) << "which is never removed";
}

TEST_F(Locks, a_counter_file_stays_while_somebody_holds_the_host_wide_lock) {
    write_counter({dead_process(), 1, 1});
    test::write_file(fimctl::path::host_lock_file, "", 0600);
    LockHolder holder;
    std::string why;
    EXPECT_FALSE(fimctl::remove_left_counter(counter_path, why)) << "it must not wait";
    EXPECT_NE(why.find("just now"), std::string::npos) << why;
    EXPECT_TRUE(test::exists(counter_path));
}

}  // namespace
