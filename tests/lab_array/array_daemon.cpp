#include "tests/lab_array/array_daemon.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "lab/array/transport/wire.h"
#include "tests/support/private_root.h"

namespace test {
namespace {

constexpr char state_file[] = "/tmp/state.db";
constexpr char control_socket[] = "/tmp/control.sock";

[[noreturn]] void become_daemon(const std::string &store, const std::string &media, int ready) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string ready_text = std::to_string(ready);
    const char *const path = TF_BINARY_DIR "/bin/tfarrayd";
    execl(path, path, "--store", store.c_str(), "--state", state_file, "--control", control_socket,
          "--media", media.c_str(), "--ready-fd", ready_text.c_str(), static_cast<char *>(nullptr));
    _exit(127);
}

}  // namespace

HostLibrary::HostLibrary() : handle_(dlopen(TF_BINARY_DIR "/lab/libsymapi.so", RTLD_NOW)) {
    EXPECT_NE(handle_, nullptr) << dlerror();
    if (handle_ == nullptr) return;
#define TEST_FUNCTION(name)                                            \
    name = reinterpret_cast<decltype(&::name)>(dlsym(handle_, #name)); \
    EXPECT_NE(name, nullptr) << #name;
#include "tests/lab_array/interface_functions.def"
#undef TEST_FUNCTION
}

HostLibrary::~HostLibrary() {
    unload();
}

void HostLibrary::unload() {
    if (handle_ == nullptr) return;
    EXPECT_EQ(dlclose(handle_), 0);
    handle_ = nullptr;
}

ArrayDaemon::ArrayDaemon(const std::string &store, const std::string &media)
    : store_(store), media_(media) {
    start();
}

ArrayDaemon::~ArrayDaemon() {
    kill();
    for (const char *end : {"", "-wal", "-shm"}) {
        std::filesystem::remove(std::string(state_file) + end);
    }
    for (const char *path : {control_socket, lab::host_socket, dev}) {
        std::filesystem::remove_all(path);
    }
}

void ArrayDaemon::start() {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_ = fork();
    if (pid_ == 0) {
        close(ready[0]);
        become_daemon(store_, media_, ready[1]);
    }
    close(ready[1]);
    char newline = 0;
    const ssize_t got = read(ready[0], &newline, 1);
    close(ready[0]);
    if (got != 1) {
        kill();
        FAIL() << "the daemon does not start";
    }
    link_ = std::make_unique<lab::Link>(control_socket);
}

void ArrayDaemon::kill() {
    link_.reset();
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

nlohmann::json ArrayDaemon::ask(const nlohmann::json &request) {
    return link_->ask(request);
}

void ArrayDaemon::build_small_array() {
    const auto device = [this](const char *name, bool bcv) {
        ask({{"command", "device create"},
             {"symid", symid},
             {"name", name},
             {"size", size},
             {"bcv", bcv}});
        ask({{"command", "group add"}, {"symid", symid}, {"name", name}, {"group", "dg"}});
    };
    const auto pair = [this](const char *primary, const char *bcv) {
        ask({{"command", "pair"}, {"symid", symid}, {"primary", primary}, {"bcv", bcv}});
    };
    const auto mask = [this](const char *name, nlohmann::json paths, nlohmann::json ports) {
        ask({{"command", "mask"},
             {"symid", symid},
             {"name", name},
             {"host", "client1"},
             {"paths", paths},
             {"ports", ports}});
    };
    ask({{"command", "array create"}, {"symid", symid}});
    for (const char *name : {"00A1", "00A2"}) device(name, false);
    for (const char *name : {"01A1", "01A2", "01B1"}) device(name, true);
    ask({{"command", "label"}, {"symid", symid}, {"name", "01A1"}, {"label", "TSR-BCV"}});
    pair("00A1", "01A1");
    pair("00A1", "01B1");
    pair("00A2", "01A2");
    ask({{"command", "settings"}, {"rate", 0}});
    ask({{"command", "host add"}, {"name", "client1"}, {"socket", lab::host_socket}, {"dev", dev}});
    mask("00A1", {"/dev/qz/dmp/p0", "/dev/qz/rdmp/p0"}, nlohmann::json::array());
    mask("00A2", {"/dev/emcpowera"}, {"/dev/sdc", "/dev/sdd"});
    mask("01A1", {"/dev/sdq"}, nlohmann::json::array());
    mask("01A2", {"/dev/sdr"}, nlohmann::json::array());
}

void WithArray::SetUp() {
    NeedsRoot::SetUp();
    if (IsSkipped()) return;
    store = std::make_unique<RealStore>();
    daemon = std::make_unique<ArrayDaemon>(store->path);
    if (!daemon->running()) return;
    daemon->build_small_array();
    library = std::make_unique<HostLibrary>();
    ASSERT_EQ(library->SymInitV(database.c_str(), 4, &session, nullptr, 0x05000000), 0);
    ASSERT_EQ(library->SymDiscover(session, 0), 0);
}

void WithArray::TearDown() {
    library.reset();
    daemon.reset();
    store.reset();
    std::filesystem::remove(database);
}

long WithArray::state(const char *primary_name, const char *bcv_name) {
    SymDevice device;
    if (library->SymDevShow(session, ArrayDaemon::symid, primary_name, &device) != 0) return -1;
    for (int i = 0; i < device.bcv_count; ++i) {
        if (std::string(device.bcvs[i].bcvdev_sym_devname) == bcv_name) {
            return device.bcvs[i].bcv_pair_state;
        }
    }
    return -1;
}

}  // namespace test
