// The client library in somebody else's root process: forks, threads, closed descriptors, no
// memory, a daemon that dies, and unloading. Needs root: the devices are loop devices.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "lab/array/model/codes.h"
#include "tests/lab_array/array_daemon.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/private_root.h"

namespace {

using test::ArrayDaemon;
namespace code = lab::code;

std::set<int> sockets() {
    std::set<int> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::string target = std::filesystem::read_symlink(entry.path(), error);
        if (target.starts_with("socket:")) found.insert(std::stoi(entry.path().filename()));
    }
    return found;
}

int status_of(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class ClientProcessNeedsRoot : public test::WithArray {
  protected:
    // The descriptor of a library that connects anew.
    int descriptor_of(test::HostLibrary *fresh) {
        const std::set<int> before = sockets();
        uint32_t number = 0;
        const char *text = nullptr;
        EXPECT_EQ(fresh->SymApiVersion(&number, &text), 0);
        for (const int fd : sockets()) {
            if (!before.contains(fd)) return fd;
        }
        return -1;
    }
};

TEST_F(ClientProcessNeedsRoot, a_child_talks_over_a_connection_of_its_own) {
    const pid_t child = fork();
    if (child == 0) {
        int wrong = 0;
        for (int i = 0; i < 200; ++i) {
            SymDevice device = {};
            wrong += library->SymPdevShow(session, "/dev/sdq", &device) != 0 ||
                     std::string(device.sym_devname) != "01A1";
        }
        _exit(wrong == 0 ? 0 : 1);
    }
    int wrong = 0;
    for (int i = 0; i < 200; ++i) {
        SymDevice device = {};
        wrong += library->SymPdevShow(session, "/dev/sdr", &device) != 0 ||
                 std::string(device.sym_devname) != "01A2";
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(status_of(child), 0);
    EXPECT_EQ(library->SymPing(session), 0);  // the child's end ended nothing of ours
}

TEST_F(ClientProcessNeedsRoot, a_session_ends_with_the_processes_that_used_it) {
    int handle[2];
    ASSERT_EQ(pipe(handle), 0);
    const pid_t child = fork();
    if (child == 0) {
        int32_t opened = -1;
        library->SymInitV(database.c_str(), 3, &opened, nullptr, 0);
        _exit(write(handle[1], &opened, sizeof opened) == sizeof opened ? 0 : 1);
    }
    int32_t opened = -1;
    ASSERT_EQ(read(handle[0], &opened, sizeof opened), 4);
    close(handle[0]);
    close(handle[1]);
    EXPECT_EQ(status_of(child), 0);
    EXPECT_TRUE(test::soon([this] {  // asking with the session would keep it
        return daemon->ask({{"command", "show"}}).at("sessions") == 1;
    }));
    EXPECT_EQ(library->SymPing(opened), code::session_closed);
    EXPECT_EQ(library->SymPing(session), code::ok);
}

TEST_F(ClientProcessNeedsRoot, threads_share_the_connection_one_call_at_a_time) {
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            const char *const path = i % 2 == 0 ? "/dev/sdq" : "/dev/sdr";
            const char *const name = i % 2 == 0 ? "01A1" : "01A2";
            for (int k = 0; k < 100; ++k) {
                SymDevice device = {};
                wrong += library->SymPdevShow(session, path, &device) != 0 ||
                         std::string(device.sym_devname) != name;
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(ClientProcessNeedsRoot, the_connection_is_closed_on_exec) {
    for (const int fd : sockets()) EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
}

TEST_F(ClientProcessNeedsRoot, a_descriptor_that_the_host_process_closed_is_never_used_again) {
    const int fd = descriptor_of(library.get());
    const int own = fd >= 0 ? fd : *sockets().rbegin();
    close(own);
    const std::string file = "/tmp/reused";
    const lab::Fd reused = lab::open_file(file);
    ASSERT_EQ(reused.get(), own);  // the number now belongs to somebody else
    uint32_t number = 0;
    const char *text = nullptr;
    EXPECT_EQ(library->SymApiVersion(&number, &text), 0);
    EXPECT_EQ(fcntl(reused.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);  // still open
    EXPECT_EQ(test::read_file(file), "");                              // and not written to
    std::filesystem::remove(file);
}

TEST_F(ClientProcessNeedsRoot, a_daemon_that_dies_before_it_answers_loses_the_answer_only) {
    fault({{"function", "SymPing"}, {"delay_ms", 60'000}});
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGPIPE, SIG_DFL);
        const bool lost = library->SymPing(session) == code::answer_lost;
        // The dying daemon's own socket may still take a connection for a moment.
        const bool gone =
            test::soon([this] { return library->SymPing(session) == code::not_connected; });
        _exit(lost && gone ? 0 : 1);
    }
    while (daemon->ask({{"command", "show"}}).at("faults")[0].at("seen") == 0) {
    }
    daemon->kill();
    EXPECT_EQ(status_of(child), 0);
}

TEST_F(ClientProcessNeedsRoot, unloading_closes_the_connection_and_a_fork_afterwards_is_safe) {
    const std::set<int> before = sockets();
    library->unload();
    EXPECT_EQ(sockets().size(), before.size() - 1);
    const pid_t child = fork();
    if (child == 0) _exit(0);
    EXPECT_EQ(status_of(child), 0);
    library = std::make_unique<test::HostLibrary>();  // and loaded again it works
    uint32_t number = 0;
    const char *text = nullptr;
    EXPECT_EQ(library->SymApiVersion(&number, &text), 0);
}

TEST_F(ClientProcessNeedsRoot, errno_is_the_callers) {
    errno = EXDEV;
    EXPECT_EQ(library->SymPing(session), 0);
    EXPECT_EQ(errno, EXDEV);
}

// The next tests call the library's functions as linked into this program, where allocations can be
// made to fail.
class LinkedClientNeedsRoot : public ClientProcessNeedsRoot {
  protected:
    void SetUp() override {
        ClientProcessNeedsRoot::SetUp();
        known = sockets();
    }
    // The linked library keeps its connection for the life of the program.
    void TearDown() override {
        for (const int fd : sockets()) {
            if (!known.contains(fd)) close(fd);
        }
        ClientProcessNeedsRoot::TearDown();
    }
    std::set<int> known;
};

TEST_F(LinkedClientNeedsRoot, a_request_that_there_is_no_memory_for_is_not_sent) {
    const char *names[] = {"00A1", nullptr}, *bcvs[] = {"01A1", nullptr};
    test::fail_allocation(1);
    EXPECT_EQ(::SymDevListBcvControl(session, ArrayDaemon::symid, 1, names, bcvs, 3, 0, 0),
              code::no_memory);
    EXPECT_EQ(state(), 5);
    SymDevice device;
    test::fail_allocation(1);
    EXPECT_EQ(::SymPdevShow(session, "/dev/sdq", &device), code::no_memory);
    EXPECT_EQ(::SymPdevShow(session, "/dev/sdq", &device), 0);
}

TEST_F(LinkedClientNeedsRoot, an_answer_that_there_is_no_memory_for_is_passed_over) {
    void *text = nullptr;
    test::fail_allocation(1);
    EXPECT_EQ(::SymPdevList(session, &text), code::no_memory);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(::SymPing(session), 0);  // the connection is still in step
    test::fail_allocation(1);
    EXPECT_EQ(::SymDiscover(session, 0), code::no_memory);
    EXPECT_EQ(::SymDiscover(session, 0), 0);
}

TEST_F(ClientProcessNeedsRoot, a_list_of_more_pairs_than_any_array_has_travels_whole) {
    std::vector<const char *> names(2046, "00A1"), bcvs(2046, "01A1");
    names.push_back(nullptr);
    bcvs.push_back(nullptr);
    EXPECT_EQ(library->SymDevListBcvControl(session, ArrayDaemon::symid, 2046, names.data(),
                                            bcvs.data(), 3, 0, 0),
              code::device_twice);
}

class SleepPreloadNeedsRoot : public test::WithArray {
  protected:
    void SetUp() override {
        WithArray::SetUp();
        if (IsSkipped()) return;
        handle = dlopen(TF_BINARY_DIR "/lab/libtflabsleep.so", RTLD_NOW);
        ASSERT_NE(handle, nullptr) << dlerror();
        lab_sleep = reinterpret_cast<unsigned (*)(unsigned)>(dlsym(handle, "sleep"));
    }
    void TearDown() override {
        if (handle != nullptr) dlclose(handle);
        WithArray::TearDown();
    }
    double now() { return daemon->ask({{"command", "clock"}}).at("seconds"); }
    void *handle = nullptr;
    unsigned (*lab_sleep)(unsigned) = nullptr;
};

TEST_F(SleepPreloadNeedsRoot, sleep_puts_the_arrays_clock_forward_and_returns_at_once) {
    daemon->ask({{"command", "clock"}, {"running", false}});
    const double before = now();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(lab_sleep(3600), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_DOUBLE_EQ(now(), before + 3600);
}

TEST_F(SleepPreloadNeedsRoot, sleep_without_an_array_sleeps) {
    daemon->kill();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(lab_sleep(1), 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(990));
}

TEST(ClientLibrary, exports_the_interface_and_nothing_else) {
    const std::string out = "/tmp/exports";
    ASSERT_EQ(system(("nm -D --defined-only " TF_BINARY_DIR
                      "/lab/libsymapi.so | awk '{print $3}' | sort > " +
                      out)
                         .c_str()),
              0);
    std::set<std::string> wanted;
#define TEST_FUNCTION(name) wanted.insert(#name);
#include "tests/lab_array/interface_functions.def"
#undef TEST_FUNCTION
    std::string text;
    for (const std::string &name : wanted) text += name + "\n";
    EXPECT_EQ(test::read_file(out), text);
    std::filesystem::remove(out);
}

TEST(ClientLibrary, offers_every_function_that_the_interface_declares) {
    std::set<std::string> declared, bound;
    const std::string header = test::read_file(TF_SOURCE_DIR "/include/symapi.h");
    for (size_t at = header.find("Sym"); at != std::string::npos; at = header.find("Sym", at + 3)) {
        const size_t end = header.find_first_not_of(
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_", at);
        const bool begins = isalnum(static_cast<unsigned char>(header[at - 1])) == 0;
        if (begins && header[end] == '(') declared.insert(header.substr(at, end - at));
    }
#define TEST_FUNCTION(name) bound.insert(#name);
#include "tests/lab_array/interface_functions.def"
#undef TEST_FUNCTION
    EXPECT_EQ(bound, declared);
}

}  // namespace
