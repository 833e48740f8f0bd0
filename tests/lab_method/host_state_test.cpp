// What the phases of these cases are watched with: every change of the process has to show.
#include "tests/lab_method/phase/host_state.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdlib>

namespace {

using phase::HostState;

std::vector<std::string> changes_since(const HostState &before) {
    return before.changes(HostState());
}

bool shows(const HostState &before, const std::string &what) {
    for (const std::string &change : changes_since(before)) {
        if (change.find(what) != std::string::npos) return true;
    }
    return false;
}

TEST(HostState, nothing_shows_while_nothing_changes) {
    const HostState before;
    EXPECT_EQ(changes_since(before), std::vector<std::string>());
}

TEST(HostState, signals_show) {
    const HostState before;
    struct sigaction action = {}, old = {};
    action.sa_handler = SIG_IGN;
    sigaction(SIGUSR1, &action, &old);
    EXPECT_TRUE(shows(before, "action of signal 10"));
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(changes_since(before), std::vector<std::string>());
    sigset_t one, mask;
    sigemptyset(&one);
    sigaddset(&one, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &one, &mask);
    EXPECT_TRUE(shows(before, "is held signals: 25"));
    raise(SIGXFSZ);
    EXPECT_TRUE(shows(before, "is pending signals: 25"));
    int taken = 0;
    sigwait(&one, &taken);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    EXPECT_EQ(changes_since(before), std::vector<std::string>());
}

TEST(HostState, umask_directory_locale_and_environment_show) {
    const HostState before;
    const mode_t mask = umask(0123);
    EXPECT_TRUE(shows(before, "is umask: 83"));
    umask(mask);
    const int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(chdir("/proc"), 0);
    EXPECT_TRUE(shows(before, "is directory: /proc "));
    EXPECT_EQ(fchdir(here), 0);
    close(here);
    setlocale(LC_NUMERIC, "C.UTF-8");
    EXPECT_TRUE(shows(before, "locale: "));
    setlocale(LC_NUMERIC, "C");
    const locale_t own = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    uselocale(own);
    EXPECT_TRUE(shows(before, "locale of the thread: "));
    uselocale(LC_GLOBAL_LOCALE);
    freelocale(own);
    setenv("HOST_STATE", "new", 1);
    EXPECT_TRUE(shows(before, "is environment: HOST_STATE=new"));
    unsetenv("HOST_STATE");
    EXPECT_EQ(changes_since(before), std::vector<std::string>());
}

TEST(HostState, descriptors_and_children_show) {
    const HostState before;
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(shows(before, "is descriptor " + std::to_string(fd) + ": /dev/null"));
    const HostState with_descriptor;
    fcntl(fd, F_SETFD, 0);
    EXPECT_TRUE(shows(with_descriptor, "is descriptor " + std::to_string(fd)));
    close(fd);
    // A child that has ended counts until somebody waits for it.
    const pid_t child = fork();
    if (child == 0) _exit(0);
    EXPECT_TRUE(shows(before, "is child: " + std::to_string(child)));
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(changes_since(before), std::vector<std::string>());
}

}  // namespace
