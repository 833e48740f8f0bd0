// What the tests of a thaw commit without a restore share: devices with split pairs, and locks.
#pragma once

#include <unistd.h>

#include "method/lock_file.h"
#include "tests/method/release_fixture.h"

namespace test {

inline constexpr char array_1[] = "000184500001";
inline constexpr char array_2[] = "000184500002";

class ThawCommitTest : public Release {
  protected:
    static constexpr char counter_file[] =
        "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_SN00000000";

    ThawCommitTest() { set_level(0); }
    ~ThawCommitTest() override { unlink(counter_file); }

    // A plain device with one pair.
    hdef *new_split_device(const char *primary, const char *bcv, const char *symid = array_1,
                           long state = 5) {
        hdef *h = new_device();
        const std::string path = std::string("/dev/qz/rdmp/p") + primary + symid[11];
        add_pair(h, symid, primary, bcv, path.c_str(), state);
        return h;
    }
    // Makes the array lock of a record be held as a freeze leaves it.
    void take_lock(hdef *h, prim_mir_info *pm) {
        recorded.install_device_tool("SN00000077");
        ASSERT_EQ(manage_lock(h, pm, TF_LOCK_SET), 0);
        pm->lock_set = 1;
        recorded.forget();
    }
    Lines controls() const { return array.calls_of("SymDevListBcvControl"); }
    // Has the state of the only pair of array_1 change with the n-th call of a function.
    void set_state_at(const std::string &function, int n, const char *primary, long state) {
        array.on_call = [=, this, seen = 0](const std::string &line) mutable {
            if (line.starts_with(function + " ") && ++seen == n) {
                array.set_state(array_1, primary, state);
            }
        };
    }
};

}  // namespace test
