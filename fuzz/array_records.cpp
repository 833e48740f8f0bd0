// What the array answers: records with texts that have no end, counts beyond their lists, nothing
// at all with success; to everything that reads a record.
//
//     sync_at_start=2 query_only=1 dgimport=1 is_tgt=1 path=/dev/emcpowera    of the call
//     SymDevSync=0 0 28      codes of the next calls of a function
//     [primary]              the record of the primary; a further one is the answer of the next
//                            call, the last one stays
//     [device 00B1]          the record of another device
//     [any]                  of those without a record
//     dgname=DG  bcv0.bcv_pair_state=2  port3=/dev/sdq    its fields; a text that fills its field
//                            has no end, and "x~" fills it with x
#include <cstddef>
#include <cstring>
#include <map>
#include <sstream>

#include "fuzz/support/every_device.h"
#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "method/bcv_control.h"
#include "method/capture.h"
#include "method/freeze_commit.h"
#include "method/pair_discovery.h"
#include "method/pair_index.h"
#include "method/rebuild.h"
#include "method/records.h"
#include "method/valid_bcv.h"
#include "symapi/symapi_session.h"

using fuzz::finding;

namespace {

constexpr int gone = 99;  // what a worn-out array answers
constexpr int unknown_device = 28;

struct TextField {
    const char *name;
    size_t offset, size;
};

#define DEVICE_TEXT(field) \
    { #field, offsetof(SymDevice, field), sizeof(SymDevice::field) }
constexpr TextField device_texts[] = {
    DEVICE_TEXT(vendor_id),        DEVICE_TEXT(product_id),
    DEVICE_TEXT(product_rev),      DEVICE_TEXT(symid),
    DEVICE_TEXT(sym_devname),      DEVICE_TEXT(pdevname),
    DEVICE_TEXT(device_serial_id), DEVICE_TEXT(dgname),
    DEVICE_TEXT(ldevname),
};
#undef DEVICE_TEXT
#define BCV_TEXT(field) \
    { #field, offsetof(SymBcvInfo, field), sizeof(SymBcvInfo::field) }
constexpr TextField bcv_texts[] = {
    BCV_TEXT(dev_serial_id),    BCV_TEXT(dev_sym_devname),    BCV_TEXT(dev_dgname),
    BCV_TEXT(bcvdev_serial_id), BCV_TEXT(bcvdev_sym_devname), BCV_TEXT(bcvdev_dgname),
};
#undef BCV_TEXT

// As an array might write it: no longer than the field, and without an end where it fills it.
void fill(void *field, size_t size, std::string value) {
    if (value.size() > 1 && value.back() == '~') {
        value.pop_back();
        value.resize(size, value.back());
    }
    memset(field, 0, size);
    memcpy(field, value.data(), std::min(size, value.size()));
}

template <size_t N>
void fill_text(void *record, const TextField (&fields)[N], const std::string &key,
               const std::string &value) {
    for (const TextField &field : fields) {
        if (key == field.name) fill(static_cast<char *>(record) + field.offset, field.size, value);
    }
}

void take_field(SymDevice &device, const std::string &key, const std::string &value) {
    const long number = strtol(value.c_str(), nullptr, 10);
    const size_t dot = key.find('.');
    if (key.starts_with("bcv") && dot != std::string::npos) {
        SymBcvInfo &entry = device.bcvs[strtoul(key.c_str() + 3, nullptr, 10) % SYM_MAX_BCVS];
        const std::string name = key.substr(dot + 1);
        if (name == "bcv_pair_state") entry.bcv_pair_state = number;
        fill_text(&entry, bcv_texts, name, value);
        return;
    }
    if (key == "bcv_count") device.bcv_count = static_cast<int32_t>(number);
    if (key == "port_count") device.port_count = static_cast<int32_t>(number);
    if (key.starts_with("port") && key != "port_count") {
        fill(device.ports[strtoul(key.c_str() + 4, nullptr, 10) % SYM_MAX_PORTS], SYM_PDEV_SIZE,
             value);
    }
    fill_text(&device, device_texts, key, value);
}

// What the input says.
struct Plan {
    hdef settings{};
    int32_t query_only = 0;
    std::string path = "/dev/rdsk/c1t0d0";
    std::map<std::string, std::vector<int>> codes;
    std::vector<SymDevice> primaries;
    std::map<std::string, SymDevice> devices;
    bool has_any = false;
    SymDevice any{};
};

void take_setting(Plan &plan, const std::string &key, const std::string &value) {
    const auto number = static_cast<int32_t>(strtol(value.c_str(), nullptr, 10));
    if (key == "sync_at_start") plan.settings.sync_at_start = number;
    if (key == "dgimport") plan.settings.dgimport = number;
    if (key == "is_tgt") plan.settings.is_tgt = number;
    if (key == "query_only") plan.query_only = number;
    // Long texts are logged in pieces. None that begins within the path may look like a record's
    // line.
    if (key == "path" && value.find('\t') == std::string::npos) plan.path = value;
    if (!key.starts_with("Sym")) return;
    std::istringstream in(value);
    for (int code; in >> code;) plan.codes[key].push_back(code);
}

SymDevice *record_of(Plan &plan, const std::string &heading) {
    if (heading == "[primary]") return &plan.primaries.emplace_back();
    if (heading == "[any]") {
        plan.has_any = true;
        return &plan.any;
    }
    if (heading.starts_with("[device ")) {
        return &plan.devices[heading.substr(8, heading.size() - 9)];
    }
    return nullptr;
}

Plan read_plan(const std::string &text) {
    Plan plan;
    SymDevice *record = nullptr;
    for (const std::string &line : fuzz::lines_of(text)) {
        const size_t equals = line.find('=');
        if (line.starts_with("[")) {
            record = record_of(plan, line);
        } else if (equals != std::string::npos) {
            const std::string key = line.substr(0, equals), value = line.substr(equals + 1);
            if (record != nullptr) {
                take_field(*record, key, value);
            } else {
                take_setting(plan, key, value.c_str());
            }
        }
    }
    return plan;
}

// The array that answers after the plan.
struct Answers {
    const Plan *plan = nullptr;
    std::map<std::string, size_t> calls;
    size_t shown = 0;
    bool worn_out = false;
} answers;

int code_of(const char *function) {
    if (answers.worn_out) return gone;
    const auto codes = answers.plan->codes.find(function);
    const size_t n = answers.calls[function]++;
    if (codes == answers.plan->codes.end() || n >= codes->second.size()) return 0;
    return codes->second[n];
}

int show_primary(int32_t, const char *, SymDevice *device) {
    const int code = code_of("SymPdevShow");
    if (code != 0) return code;
    const auto &all = answers.plan->primaries;
    if (all.empty()) return unknown_device;
    *device = all[std::min(answers.shown++, all.size() - 1)];
    return 0;
}

int show_device(int32_t, const char *symid, const char *name, SymDevice *device) {
    const int code = code_of("SymDevShow");
    if (code != 0) return code;
    if (strlen(symid) >= SYM_SYMID_SIZE || strlen(name) >= SYM_DEVNAME_SIZE) {
        finding("asked for the device <%s> of <%s>", name, symid);
    }
    const auto found = answers.plan->devices.find(name);
    if (found == answers.plan->devices.end() && !answers.plan->has_any) return unknown_device;
    *device = found != answers.plan->devices.end() ? found->second : answers.plan->any;
    return 0;
}

void bind(const Plan &plan) {
    answers = {};
    answers.plan = &plan;
    p_emc_tf_SymPdevShow = show_primary;
    p_emc_tf_SymDevShow = show_device;
    p_emc_tf_SymPdevSync = [](int32_t, const char *, int) { return code_of("SymPdevSync"); };
    p_emc_tf_SymDevSync = [](int32_t, const char *, const char *, int, int) {
        return code_of("SymDevSync");
    };
    p_emc_tf_SymLdevBcvControl = [](int32_t, const char *group, const char *name, int, int) {
        if (strlen(group) >= SYM_GROUP_SIZE || strlen(name) >= SYM_GROUP_SIZE) {
            finding("controls <%s> of <%s>", name, group);
        }
        return code_of("SymLdevBcvControl");
    };
    p_emc_tf_SymDevBcvControl = [](int32_t, const char *, const char *, const char *, int, int) {
        return code_of("SymDevBcvControl");
    };
}

// A field of a record stands in its line alone; one without an end would run on.
void expect_bounded_line(const char *line) {
    static constexpr struct {
        const char *start;
        size_t size;
    } lines[] = {
        {"\tvendor_id=", 16},
        {"\tproduct_id=", 32},
        {"\tproduct_rev=", 16},
        {"\tsymid=", SYM_SYMID_SIZE},
        {"\tdevice_serial_id=", SYM_DEVNAME_SIZE},
        {"\tsym_devname=", SYM_DEVNAME_SIZE},
        {"\tpdevname=", SYM_PDEV_SIZE},
        {"\tdgname=", SYM_GROUP_SIZE},
        {"\tldevname=", SYM_GROUP_SIZE},
        {"\talternate port=", SYM_PDEV_SIZE},
        {"\t\tdev_serial_id=", SYM_SYMID_SIZE},
        {"\t\tdev_sym_devname=", SYM_DEVNAME_SIZE},
        {"\t\tdev_dgname=", SYM_GROUP_SIZE},
        {"\t\tbcvdev_serial_id=", SYM_SYMID_SIZE},
        {"\t\tbcvdev_sym_devname=", SYM_DEVNAME_SIZE},
        {"\t\tbcvdev_dgname=", SYM_GROUP_SIZE},
    };
    for (const auto &known : lines) {
        const size_t length = strlen(known.start);
        if (strncmp(line, known.start, length) != 0) continue;
        if (strlen(line + length) >= known.size) finding("a field ran on: %s", line);
    }
}

// One object with one device, and what it must look like afterwards.
class Object {
  public:
    explicit Object(const Plan &plan) : h_(tf::make_zeroed<hdef>()) {
        *h_ = plan.settings;
        tf::make_capture_files(h_);
        h_->pminfo_list = tf::make_zeroed<prim_mir_info>();
        tf::put(h_->pminfo_list->dev_raw_device, plan.path.c_str());
        tf::put(h_->pminfo_list->p_dev_raw_device, plan.path.c_str());
        tf::put(h_->pminfo_list->dev_block_device, "/dev/dsk/c1t0d0");
    }
    ~Object() {
        tf::clear_pairs();
        tf::remove_capture_files(h_);
        tf::free_hdef(h_);
    }
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    hdef *h() { return h_; }
    prim_mir_info *pm() { return h_->pminfo_list; }

  private:
    hdef *h_;
};

void expect_status(const char *call, int32_t status, fuzz::Framework &framework) {
    if (status != 0) framework.expect_report(call);
    if (status == 0 && framework.has_report()) finding("%s reported a success", call);
    framework.forget();
}

void try_discovery(const Plan &plan, const fuzz::Machine &machine, fuzz::Framework &framework) {
    Object object(plan);
    const int32_t status = find_bcv_pair(object.h(), object.pm(), plan.query_only);
    // find_bcv_info reports on the way, and a poll that it ends is no failure.
    if (status != 0) framework.expect_report("find_bcv_pair");
    framework.forget();
    const bool counted = machine
                             .file(
                                 "/usr/quill/tessera/online_util/db_cntl/"
                                 "__LOCKFILE_0001845001230000")
                             .size() == 12;
    if (counted != (object.pm()->lock_set == 1)) finding("lock_set is %d", object.pm()->lock_set);
    if (status != 0 || plan.query_only != 0) {
        if (prim_mir_info_size != 0) finding("%d pairs enrolled", prim_mir_info_size);
    }
    if (status == 0 && object.pm()->bcv_pdevname[0] == '\0') finding("a BCV without a path");
}

void try_choice(const Plan &plan) {
    SymDevice device = {};
    if (emc_tf_SymPdevShow(sH, plan.path.c_str(), &device) != 0) return;
    const SymBcvInfo *chosen = nullptr;
    int32_t need_establish = 7;
    find_valid_bcv(&device, &chosen, &need_establish);
    if (need_establish != 0 && need_establish != 1) finding("need_establish %d", need_establish);
    const bool inside = chosen >= device.bcvs && chosen < device.bcvs + SYM_MAX_BCVS;
    if (chosen != nullptr && !inside) finding("the choice is no entry");
}

void try_readers(const Plan &plan, fuzz::Framework &framework) {
    Object object(plan);
    tf::put(object.pm()->symid, "000184500123");
    tf::put(object.pm()->bcvdev_sym_devname, "00B1");
    framework.forget();
    expect_status("derive_device_paths", tf::derive_device_paths(object.h(), object.pm()),
                  framework);
    long state = 0;
    expect_status("show_pair_state", tf::show_pair_state("fuzz", *object.pm(), &state), framework);
    int32_t waited = 0;
    expect_status("wait_for_establish", emc_tf_wait_for_establish(object.h(), object.pm(), &waited),
                  framework);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const Plan plan = read_plan(fuzz::text_of(data, size));
    fuzz::Machine machine;
    fuzz::Framework framework;
    const test::FakeArray array;
    bind(plan);
    machine.on_command = fuzz::answer_of_tools;
    machine.on_patience_lost = [] { answers.worn_out = true; };
    fuzz::Framework::on_log_line = expect_bounded_line;
    try_discovery(plan, machine, framework);
    try_choice(plan);
    try_readers(plan, framework);
    return 0;
}
