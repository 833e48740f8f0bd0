// What the tests of rebuild share: texts, and records that are looked after however they end.
#pragma once

#include "tests/method/release_fixture.h"

namespace test {

inline constexpr char symid[] = "000184500123";

class RebuildTest : public Release {
  protected:
    ~RebuildTest() override {
        for (hdef *handle : rebuilt_) remove_files(handle);
    }

    // Rebuilds and keeps the handle in h; null when none was handed out.
    int32_t rebuild(std::string text) {
        h = nullptr;
        const int32_t status = TimeFinder_rebuild(&h, text.data());
        if (h != nullptr) rebuilt_.push_back(h);
        return status;
    }
    // Lines of a group whose array knows the pair.
    std::string known_pair(const char *primary = "00A1", const char *bcv = "01A1",
                           const char *bcv_path = "/dev/rdsk/c1t0d0") {
        array.add_primary(symid, primary, "");
        array.add_bcv(symid, bcv, bcv_path);
        return pair_lines(primary, bcv);
    }
    static std::string pair_lines(const std::string &primary, const std::string &bcv,
                                  int lock_set = 0) {
        return std::string("PMINFO-symid=") + symid + "\nPMINFO-dev_sym_devname=" + primary +
               "\nPMINFO-dev_raw_device=/dev/qz/rdmp/p" + primary +
               "\nPMINFO-p_dev_raw_device=/dev/emcpowera\nPMINFO-bcv_raw_device=/dev/old" +
               "\nPMINFO-bcvdev_sym_devname=" + bcv +
               "\nPMINFO-issplit=1\nPMINFO-sync_at_end=1\nPMINFO-lock_set=" +
               std::to_string(lock_set) + "\nPRIM_MIR_INFO=NEXT\n";
    }
    static std::string imported_target() { return "HDEF-dgimport=1\nHDEF-is_tgt=1\n"; }

    hdef *h = nullptr;

  private:
    std::vector<hdef *> rebuilt_;
};

}  // namespace test
