// A daemon of its own for a test, with the administrator's connection, a host and its library.
#pragma once

#include <sys/types.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "include/symapi.h"
#include "lab/array/admin/link.h"
#include "tests/lab_array/real_store.h"

namespace test {

// The functions of include/symapi.h as a host gets them: from the library, by name.
struct HostLibrary {
    HostLibrary();
    HostLibrary(const HostLibrary &) = delete;
    HostLibrary &operator=(const HostLibrary &) = delete;
    ~HostLibrary();
    void unload();

#define TEST_FUNCTION(name) decltype(&::name) name = nullptr;
#include "tests/lab_array/interface_functions.def"
#undef TEST_FUNCTION

  private:
    void *handle_;
};

// tfarrayd over a folder, in a process of its own.
class ArrayDaemon {
  public:
    explicit ArrayDaemon(const std::string &store, const std::string &media = "loop");
    ArrayDaemon(const ArrayDaemon &) = delete;
    ArrayDaemon &operator=(const ArrayDaemon &) = delete;
    ~ArrayDaemon();

    // Ends the process the hard way; start() brings a new one up over the same state.
    void kill();
    void start();
    bool running() const { return pid_ > 0; }
    // A command of the administrator; throws lab::CommandRefused.
    nlohmann::json ask(const nlohmann::json &request);
    // The small array: 00A1 with 01A1 (labelled TSR-BCV) and 01B1, 00A2 with 01A2, 4 MiB each, all
    // in group dg; the host client1 sees them as below.
    void build_small_array();

    static constexpr char symid[] = "000184500123";
    static constexpr char dev[] = "/tmp/dev";  // the host's /dev
    static constexpr uint64_t size = uint64_t{4} << 20;
    static std::string node(const std::string &path) { return dev + path.substr(4); }

  private:
    std::string store_, media_;
    pid_t pid_ = -1;
    std::unique_ptr<lab::Link> link_;
};

// A test with root, a store, a daemon with the small array, a host and an open session.
class WithArray : public NeedsRoot {
  protected:
    void SetUp() override;
    void TearDown() override;

    int control(const char *standard, const char *mirror, int action) {
        return library->SymDevBcvControl(session, ArrayDaemon::symid, standard, mirror, action, 0);
    }
    // The state of a pair as the library shows it; -1 when there is none.
    long state(const char *standard = "00A1", const char *mirror = "01A1");
    nlohmann::json settings(nlohmann::json changed) {
        changed["command"] = "settings";
        return daemon->ask(changed);
    }
    void advance(int seconds) {
        daemon->ask({{"command", "clock"}, {"advance_ms", seconds * 1000}});
    }
    void fault(nlohmann::json what) {
        what["command"] = "fault add";
        daemon->ask(what);
    }

    std::unique_ptr<RealStore> store;
    std::unique_ptr<ArrayDaemon> daemon;
    std::unique_ptr<HostLibrary> library;
    int32_t session = -1;

    const std::string database = "/tmp/symapi_db.bin";
    const std::string primary = ArrayDaemon::node("/dev/qz/dmp/p0");
    const std::string bcv = ArrayDaemon::node("/dev/sdq");
};

}  // namespace test
