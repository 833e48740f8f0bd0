// A fake array behind the function slots: devices and pairs in maps, every call remembered, any
// answer scripted. It knows no time; a test moves a pair's state itself, or from on_call.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "include/records.h"
#include "include/symapi.h"

namespace test {

struct FakeDevice {
    SymDevice record{};  // what a show call answers, bcvs included
};

class FakeArray {
  public:
    // Binds every slot to this fake and opens session 7 (sH). The destructor empties the slots.
    FakeArray();
    ~FakeArray();
    FakeArray(const FakeArray &) = delete;
    FakeArray &operator=(const FakeArray &) = delete;

    // A standard device, and a BCV paired with it under the same group in the given state. The
    // primary's path is the host path under which it is shown.
    FakeDevice &add_primary(const std::string &symid, const std::string &name,
                            const std::string &path, const std::string &group = "DG");
    FakeDevice &add_bcv(const std::string &symid, const std::string &name, const std::string &path,
                        const std::string &group = "DG", const std::string &label = "TSR-BCV");
    void pair(FakeDevice &primary, const FakeDevice &bcv, long state);
    FakeDevice &device(const std::string &symid, const std::string &name);
    // The state of the first pair of a primary.
    void set_state(const std::string &symid, const std::string &primary, long state);
    long state(const std::string &symid, const std::string &primary);

    // The next answers of a function by its name ("SymDevSync"), taken in order before its normal
    // behaviour; an answer other than 0 has no effect on the devices. script_call scripts only the
    // n-th call from now on.
    void script(const std::string &function, std::vector<int> answers);
    void script_call(const std::string &function, int n, int answer);

    // One line per call: "SymPdevShow /dev/emcpowera", "SymDevSync 000000000001 0101 2 0",
    // "SymDevListBcvControl 000000000001 2 [0001,0002] [0101,0102] action 2 option 0x400800 0".
    std::vector<std::string> calls;
    std::vector<std::string> calls_of(const std::string &function) const;
    // Called before each call is answered, with its line.
    std::function<void(const std::string &)> on_call;

    // What a control action does to a pair's state at once; by default split 5, establish 2,
    // restore 8, full establish 2.
    std::map<int, long> state_after_action;
    uint32_t version = 0x05000000;
    std::string version_text = "V5.0.0.0", patch_text = "12";

    // For the functions behind the slots.
    bool answered(const std::string &function, const std::string &line, int *answer);
    SymDevice *by_path(const std::string &path);
    SymDevice *by_name(const std::string &symid, const std::string &name);
    void control(const std::string &symid, const std::string &primary, const std::string &bcv,
                 int action);

  private:
    std::map<std::string, FakeDevice> devices_;  // key "symid name"
    std::map<std::string, std::map<int, int>> scripted_;
    std::map<std::string, int> call_counts_;
    std::map<std::string, int> script_ends_;
};

// A device record for an object, with the fields that discovery fills; caller frees (make_zeroed).
prim_mir_info *make_pm(const char *symid, const char *primary, const char *bcv, const char *path);

}  // namespace test
