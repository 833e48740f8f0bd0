// Objects as freeze leaves them, and an array that knows their devices: what a freeze commit finds.
#pragma once

#include <algorithm>

#include "method/freeze_commit.h"
#include "method/text.h"
#include "tests/method/freeze_fixture.h"
#include "tests/support/allocation_faults.h"

namespace test {

inline constexpr char other_array[] = "000184500999";

class FreezeCommitTest : public Method {
  protected:
    ~FreezeCommitTest() override { on_sleep(nullptr); }

    // An object as freeze leaves it, entered in its disk group.
    static hdef *object(const char *group) {
        hdef *const h = tf::make_zeroed<hdef>();
        tf::put(h->vol_group, group);
        h->is_vol = 1;
        EXPECT_EQ(dg_insert(h), 0);
        ++client_count;
        return h;
    }
    static hdef *object_without_devices() {
        hdef *const h = object("datadg");
        return h;
    }
    // One more device at the end of an object's list, known to the array under its own path.
    prim_mir_info *device(hdef *h, const std::string &name, long state = 2,
                          const char *symid = array_id) {
        const std::string bcv_name = "01" + name.substr(2);
        const std::string path = "/dev/disk_" + std::string(symid).substr(9) + name;
        FakeDevice &bcv = array.add_bcv(symid, bcv_name, "/dev/sdq");
        FakeDevice &primary = array.add_primary(symid, name, path);
        primary.record.bcv_count = 0;
        array.pair(primary, bcv, state);
        prim_mir_info *const pm = make_pm(symid, name.c_str(), bcv_name.c_str(), path.c_str());
        prim_mir_info **link = &h->pminfo_list;
        while (*link != nullptr) link = &(*link)->next;
        *link = pm;
        return pm;
    }
    static void expect_uncommitted(int32_t clients) {
        EXPECT_EQ(freeze_commit_done, 0);
        EXPECT_EQ(client_count, clients);
        EXPECT_EQ(sH, 7);
    }
    static std::vector<std::string> lines_from(const std::string &first) {
        const auto &lines = log_lines();
        return {std::find(lines.begin(), lines.end(), first), lines.end()};
    }

    FakeArray array;
};

}  // namespace test
