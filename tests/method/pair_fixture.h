// What the tests of the pair discovery share: an array with one pair, and a record to fill.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "method/pair_discovery.h"
#include "method/pair_index.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/fake_array.h"
#include "tests/support/frozen_object.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"
#include "tests/support/sleeps.h"

namespace test {

inline constexpr char symid[] = "000184500123";
inline constexpr char primary_path[] = "/dev/rdsk/c1t0d0s2";

class PairFixture : public Method {
  protected:
    PairFixture() {
        std::filesystem::remove_all("/usr/quill/tessera/online_util");
        make_folders("/usr/quill/tessera/online_util/fi_cntl");
        make_folders("/usr/quill/tessera/online_util/db_cntl");
        write_script("/usr/quill/tessera/bin/tqtpcinfo", "echo 'EMC p=x s=00018450012300A1'");
        tf::clear_pairs();
        tf::put(pm->dev_block_device, "/dev/dsk/c1t0d0s2");
        primary = &array.add_primary(symid, "00A1", primary_path);
        bcv = &array.add_bcv(symid, "00B1", "/dev/sdq");
        array.pair(*primary, *bcv, 2);
        write_file("/dev/sdq", "");
    }
    ~PairFixture() override {
        tf::clear_pairs();
        on_sleep(nullptr);
        for (const char *path : {"/dev/sdq", "/dev/sdy", "/dev/sdz"}) unlink(path);
    }

    int32_t discover(int32_t query_only = 0) {
        log_lines().clear();
        return find_bcv_pair(object.get(), pm, query_only);
    }
    void set_bcv_path(const char *path) { tf::put(bcv->record.pdevname, path); }
    void add_port(const char *path) {
        SymDevice &r = bcv->record;
        tf::put(r.ports[r.port_count++], path);
    }
    // The BCV's paths: host name, raw and block, separated by blanks.
    std::string bcv_paths() const {
        return std::string(pm->bcv_pdevname) + " " + pm->bcv_raw_device + " " +
               pm->bcv_block_device;
    }
    // The log without the lines of the commands and locks.
    static std::string discovery_log() {
        std::string text;
        for (const std::string &line : log_lines()) {
            if (line.starts_with("Executing command: ") || line.starts_with("manage_lock: ") ||
                line.find(" lock on file: ") != std::string::npos ||
                line.starts_with("closing fd=")) {
                continue;
            }
            text += line + "\n";
        }
        return text;
    }
    static std::string call_failure(const std::string &call, const std::string &device, int code) {
        return "find_bcv_pair: SymAPI call to " + call + " on device " + device +
               " failed with code " + std::to_string(code) + " (array error " +
               std::to_string(code) + ")";
    }
    const std::string counter_file =
        "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_0001845001230000";

    FakeArray array;
    FakeDevice *primary = nullptr;
    FakeDevice *bcv = nullptr;
    FrozenObject object;
    prim_mir_info *pm = object.add_device(primary_path);
};

}  // namespace test
