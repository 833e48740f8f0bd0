// What the tests of the BCV selection share: a standard device, BCVs that are added to it, and the
// choice among them by name.
#pragma once

#include <string>
#include <vector>

#include "method/text.h"
#include "method/valid_bcv.h"
#include "tests/support/fake_array.h"
#include "tests/support/method_fixture.h"
#include "tests/support/sleeps.h"

namespace test {

class ValidBcv : public Method {
  protected:
    static constexpr char symid[] = "000000000001";
    static constexpr char path[] = "/dev/emcpowera";
    static constexpr char labelled[] = "TSR-BCV";
    static constexpr char unlabelled[] = "BCV001";

    ValidBcv() { sleeps().clear(); }
    ~ValidBcv() override { on_sleep(nullptr); }

    void add(const char *bcv, long state, const char *label, const char *group = "DG") {
        array.pair(primary, array.add_bcv(symid, bcv, "/dev/b", group, label), state);
    }
    SymDevice &record() { return primary.record; }
    // The choice, by name; "none" without one.
    std::string choose(int32_t expected = 0) {
        device = primary.record;
        chosen = &device.bcvs[5];
        need_establish = 9;
        EXPECT_EQ(find_valid_bcv(&device, &chosen, &need_establish), expected);
        if (chosen == nullptr) return "none";
        EXPECT_GE(chosen, device.bcvs);
        EXPECT_LT(chosen, device.bcvs + SYM_MAX_BCVS) << "points into the caller's record";
        return chosen->bcvdev_sym_devname;
    }

    FakeArray array;
    FakeDevice &primary = array.add_primary(symid, "0001", path);
    SymDevice device = {};
    const SymBcvInfo *chosen = nullptr;
    int32_t need_establish = 9;
};

}  // namespace test
