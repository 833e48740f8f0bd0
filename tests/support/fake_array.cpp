#include "tests/support/fake_array.h"

#include <cstdio>
#include <cstring>

#include "method/text.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

namespace test {
namespace {

FakeArray *current = nullptr;

constexpr int unknown_device = 28;

std::string hex(int value) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(value));
    return text;
}

std::string list(int count, const char *const *names) {
    std::string text = "[";
    for (int i = 0; i < count; ++i) text += std::string(i == 0 ? "" : ",") + names[i];
    return text + "]" + (names[count] == nullptr ? "" : " (no null slot)");
}

int plain(const char *function, const std::string &arguments = "") {
    int answer = 0;
    current->answered(function, std::string(function) + (arguments.empty() ? "" : " ") + arguments,
                      &answer);
    return answer;
}

int show(const char *function, const std::string &arguments, SymDevice *found, SymDevice *out) {
    int answer = 0;
    if (current->answered(function, std::string(function) + " " + arguments, &answer)) {
        return answer;
    }
    if (found == nullptr) return unknown_device;
    *out = *found;
    return 0;
}

int fake_SymInitV(const char *db_file, int mode, int32_t *session, SymInitOptions *options,
                  uint32_t api_version) {
    const int answer =
        plain("SymInitV", std::string(db_file) + " mode " + std::to_string(mode) + " options " +
                              (options != nullptr ? std::to_string(options->version) : "null") +
                              " api " + hex(static_cast<int>(api_version)));
    if (answer == 0) *session = 7;
    return answer;
}
int fake_SymExit(int32_t session, int flags) {
    return plain("SymExit", std::to_string(session) + " " + std::to_string(flags));
}
int fake_SymDiscover(int32_t session, int flags) {
    return plain("SymDiscover", std::to_string(session) + " " + std::to_string(flags));
}
int fake_SymApiVersion(uint32_t *number, const char **text) {
    const int answer = plain("SymApiVersion");
    if (answer == 0) {
        *number = current->version;
        *text = current->version_text.c_str();
    }
    return answer;
}
int fake_SymApiPatch(const char **text) {
    const int answer = plain("SymApiPatch");
    if (answer == 0) *text = current->patch_text.c_str();
    return answer;
}
const char *fake_SymPerror(int32_t, int code) {
    static char text[64];
    snprintf(text, sizeof text, "array error %d", code);
    return text;
}
const char *fake_SymErrorSymbol(int) {
    return "SYMAPI_C_FAKE";
}
int fake_SymPrefsSet(int32_t, int preference, int value) {
    return plain("SymPrefsSet", std::to_string(preference) + " " + std::to_string(value));
}
int fake_SymPdevShow(int32_t, const char *pdevname, SymDevice *device) {
    int answer = 0;
    const std::string line = std::string("SymPdevShow ") + pdevname;
    if (current->answered("SymPdevShow", line, &answer)) return answer;
    return show("", pdevname, current->by_path(pdevname), device);
}
int fake_SymDevShow(int32_t, const char *symid, const char *name, SymDevice *device) {
    int answer = 0;
    const std::string line = std::string("SymDevShow ") + symid + " " + name;
    if (current->answered("SymDevShow", line, &answer)) return answer;
    return show("", name, current->by_name(symid, name), device);
}
int fake_SymDevSync(int32_t, const char *symid, const char *name, int scope, int flags) {
    return plain("SymDevSync", std::string(symid) + " " + name + " " + std::to_string(scope) + " " +
                                   std::to_string(flags));
}
int fake_SymPdevSync(int32_t, const char *pdevname, int scope) {
    return plain("SymPdevSync", std::string(pdevname) + " " + std::to_string(scope));
}
int fake_SymLdevBcvControl(int32_t, const char *dgname, const char *ldevname, int action,
                           int options) {
    return plain("SymLdevBcvControl", std::string(dgname) + " " + ldevname + " action " +
                                          std::to_string(action) + " option " + hex(options));
}
int fake_SymDevBcvControl(int32_t, const char *symid, const char *name, const char *bcv, int action,
                          int options) {
    const int answer =
        plain("SymDevBcvControl", std::string(symid) + " " + name + " " + bcv + " action " +
                                      std::to_string(action) + " option " + hex(options));
    if (answer == 0) current->control(symid, name, bcv, action);
    return answer;
}
int fake_SymDevListBcvControl(int32_t, const char *symid, int count, const char *const *names,
                              const char *const *bcvs, int action, int options, int flags) {
    const int answer =
        plain("SymDevListBcvControl", std::string(symid) + " " + std::to_string(count) + " " +
                                          list(count, names) + " " + list(count, bcvs) +
                                          " action " + std::to_string(action) + " option " +
                                          hex(options) + " " + std::to_string(flags));
    for (int i = 0; answer == 0 && i < count; ++i) {
        current->control(symid, names[i], bcvs[i], action);
    }
    return answer;
}

void bind_slots() {
    p_emc_tf_SymInitV = fake_SymInitV;
    p_emc_tf_SymExit = fake_SymExit;
    p_emc_tf_SymDiscover = fake_SymDiscover;
    p_emc_tf_SymApiVersion = fake_SymApiVersion;
    p_emc_tf_SymApiPatch = fake_SymApiPatch;
    p_emc_tf_SymPerror = fake_SymPerror;
    p_emc_tf_SymErrorSymbol = fake_SymErrorSymbol;
    p_emc_tf_SymPrefsSet = fake_SymPrefsSet;
    p_emc_tf_SymPdevShow = fake_SymPdevShow;
    p_emc_tf_SymDevShow = fake_SymDevShow;
    p_emc_tf_SymDevSync = fake_SymDevSync;
    p_emc_tf_SymPdevSync = fake_SymPdevSync;
    p_emc_tf_SymLdevBcvControl = fake_SymLdevBcvControl;
    p_emc_tf_SymDevBcvControl = fake_SymDevBcvControl;
    p_emc_tf_SymDevListBcvControl = fake_SymDevListBcvControl;
}

void empty_slots() {
    p_emc_tf_SymInitV = nullptr;
    p_emc_tf_SymExit = nullptr;
    p_emc_tf_SymDiscover = nullptr;
    p_emc_tf_SymApiVersion = nullptr;
    p_emc_tf_SymApiPatch = nullptr;
    p_emc_tf_SymPerror = nullptr;
    p_emc_tf_SymErrorSymbol = nullptr;
    p_emc_tf_SymPrefsSet = nullptr;
    p_emc_tf_SymPdevShow = nullptr;
    p_emc_tf_SymDevShow = nullptr;
    p_emc_tf_SymDevSync = nullptr;
    p_emc_tf_SymPdevSync = nullptr;
    p_emc_tf_SymLdevBcvControl = nullptr;
    p_emc_tf_SymDevBcvControl = nullptr;
    p_emc_tf_SymDevListBcvControl = nullptr;
}

std::string key(const std::string &symid, const std::string &name) {
    return symid + " " + name;
}

}  // namespace

FakeArray::FakeArray() : state_after_action{{1, 2}, {2, 5}, {3, 2}, {5, 8}} {
    current = this;
    bind_slots();
    sH = 7;
    emc_tf_DSO_open = 1;
    emc_tf_SymVersion = 0x0500;
}

FakeArray::~FakeArray() {
    empty_slots();
    current = nullptr;
}

FakeDevice &FakeArray::add_primary(const std::string &symid, const std::string &name,
                                   const std::string &path, const std::string &group) {
    FakeDevice &added = devices_[key(symid, name)];
    SymDevice &r = added.record;
    tf::put(r.vendor_id, "EMC");
    tf::put(r.product_id, "SYMMETRIX");
    tf::put(r.product_rev, "5568");
    tf::put(r.symid, symid.c_str());
    tf::put(r.device_serial_id, name.c_str());
    tf::put(r.sym_devname, name.c_str());
    tf::put(r.pdevname, path.c_str());
    tf::put(r.dgname, group.c_str());
    tf::put(r.ldevname, ("DEV" + name).c_str());
    return added;
}

FakeDevice &FakeArray::add_bcv(const std::string &symid, const std::string &name,
                               const std::string &path, const std::string &group,
                               const std::string &label) {
    FakeDevice &added = add_primary(symid, name, path, group);
    tf::put(added.record.ldevname, label.c_str());
    return added;
}

void FakeArray::pair(FakeDevice &primary, const FakeDevice &bcv, long state) {
    SymDevice &p = primary.record;
    SymBcvInfo &info = p.bcvs[p.bcv_count++];
    tf::put(info.dev_serial_id, p.symid);
    tf::put(info.dev_sym_devname, p.sym_devname);
    tf::put(info.dev_dgname, p.dgname);
    tf::put(info.bcvdev_serial_id, bcv.record.symid);
    tf::put(info.bcvdev_sym_devname, bcv.record.sym_devname);
    tf::put(info.bcvdev_dgname, bcv.record.dgname);
    info.bcv_pair_state = state;
}

FakeDevice &FakeArray::device(const std::string &symid, const std::string &name) {
    return devices_.at(key(symid, name));
}

void FakeArray::set_state(const std::string &symid, const std::string &primary, long state) {
    device(symid, primary).record.bcvs[0].bcv_pair_state = state;
}

long FakeArray::state(const std::string &symid, const std::string &primary) {
    return device(symid, primary).record.bcvs[0].bcv_pair_state;
}

void FakeArray::script(const std::string &function, std::vector<int> answers) {
    int n = std::max(call_counts_[function], script_ends_[function]);
    for (const int answer : answers) scripted_[function][++n] = answer;
    script_ends_[function] = n;
}

void FakeArray::script_call(const std::string &function, int n, int answer) {
    scripted_[function][call_counts_[function] + n] = answer;
}

std::vector<std::string> FakeArray::calls_of(const std::string &function) const {
    std::vector<std::string> found;
    for (const std::string &line : calls) {
        if (line == function || line.starts_with(function + " ")) found.push_back(line);
    }
    return found;
}

bool FakeArray::answered(const std::string &function, const std::string &line, int *answer) {
    if (function.empty()) return false;
    calls.push_back(line);
    if (on_call) on_call(line);
    const auto &answers = scripted_[function];
    const auto found = answers.find(++call_counts_[function]);
    if (found == answers.end()) return false;
    *answer = found->second;
    return *answer != 0;
}

SymDevice *FakeArray::by_path(const std::string &path) {
    for (auto &[name, found] : devices_) {
        if (found.record.pdevname == path) return &found.record;
        for (int i = 0; i < found.record.port_count; ++i) {
            if (found.record.ports[i] == path) return &found.record;
        }
    }
    return nullptr;
}

SymDevice *FakeArray::by_name(const std::string &symid, const std::string &name) {
    const auto found = devices_.find(key(symid, name));
    return found == devices_.end() ? nullptr : &found->second.record;
}

void FakeArray::control(const std::string &symid, const std::string &primary,
                        const std::string &bcv, int action) {
    SymDevice *found = by_name(symid, primary);
    if (found == nullptr) return;
    for (int i = 0; i < found->bcv_count; ++i) {
        SymBcvInfo &info = found->bcvs[i];
        if (info.bcvdev_sym_devname == bcv) info.bcv_pair_state = state_after_action[action];
    }
}

prim_mir_info *make_pm(const char *symid, const char *primary, const char *bcv, const char *path) {
    auto *pm = tf::make_zeroed<prim_mir_info>();
    tf::put(pm->symid, symid);
    tf::put(pm->dev_sym_devname, primary);
    tf::put(pm->bcvdev_sym_devname, bcv);
    tf::put(pm->dev_raw_device, path);
    tf::put(pm->p_dev_raw_device, path);
    return pm;
}

}  // namespace test
