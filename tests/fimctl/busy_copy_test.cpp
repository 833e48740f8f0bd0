// Who keeps a copy from being taken down, told by the release that failed for it.
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using test::Ended;

class BusyCopy : public test::FimctlWorld {};

TEST_F(BusyCopy, a_thaw_that_fails_names_the_processes_and_mounts_that_keep_the_copy_up) {
    const std::string one = add_file_system("one", "000184500123", "00A1", "00B1");
    script("thaw 1 fail 0 ");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one}).status, 0);
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    const std::string copy = copy_folder(1, 1);
    ASSERT_EQ(mount("tmpfs", copy.c_str(), "tmpfs", 0, nullptr), 0);
    test::make_folders(copy + "/inner");
    ASSERT_EQ(mount("tmpfs", (copy + "/inner").c_str(), "tmpfs", 0, nullptr), 0);
    std::vector<pid_t> users;
    for (int i = 0; i < 4; ++i) {
        users.push_back(fork());
        if (users.back() != 0) continue;
        if (chdir(copy.c_str()) == 0) execl("/bin/sleep", "sleep", "60", nullptr);
        _exit(127);
    }
    usleep(200000);
    const Ended ended = fimctl({"release", "1"});
    for (const pid_t user : users) {
        kill(user, SIGKILL);
        waitpid(user, nullptr, 0);
    }
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find(copy + " is still mounted; used by sleep (pid "), std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find(") and 1 more; mounted inside it: " + copy + "/inner"),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(ended.err.find("gave no message"), std::string::npos) << ended.err;
    EXPECT_EQ(umount((copy + "/inner").c_str()), 0);
    EXPECT_EQ(umount(copy.c_str()), 0);
}

}  // namespace
