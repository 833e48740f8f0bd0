// The counter file of an array, against a model of it.
//
//     contents=self 3 1      its fields: numbers, or the pids self, alive and dead
//     length=12              how many bytes of them are there; -1: no file
//     serial=0001845001230A  what the device-information tool says
//     path=known             the record knows its file before the first call
//     modes=sscx             calls: set, clear, and a mode that does not exist
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <sstream>

#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "fuzz/support/machine.h"
#include "method/capture.h"
#include "method/lock_file.h"
#include "method/paths.h"
#include "method/records.h"
#include "method/text.h"

using fuzz::finding;

namespace {

constexpr char prefix[] = "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_";
constexpr pid_t alive_process = 4711, dead_process = 4712;
constexpr size_t field_size = sizeof(int32_t);

struct Plan {
    std::optional<std::string> contents;  // of the counter file, when there is one
    std::string serial = "00018450012300A1";
    std::string modes = "s";
    bool path_known = false;
};

int32_t field_of(const std::string &word) {
    if (word == "self") return getpid();
    if (word == "alive") return alive_process;
    if (word == "dead") return dead_process;
    return static_cast<int32_t>(strtol(word.c_str(), nullptr, 10));
}

std::string bytes_of(const std::string &fields) {
    std::string bytes;
    std::istringstream in(fields);
    for (std::string word; in >> word && bytes.size() < 4 * field_size;) {
        const int32_t value = field_of(word);
        bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
    }
    return bytes;
}

Plan read_plan(const std::string &text) {
    constexpr size_t longest_serial = 300, most_calls = 12;
    Plan plan;
    long length = 12;
    for (const std::string &line : fuzz::lines_of(text)) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string key = line.substr(0, equals), value = line.substr(equals + 1).c_str();
        if (key == "contents") plan.contents = bytes_of(value);
        if (key == "length") length = strtol(value.c_str(), nullptr, 10);
        if (key == "serial") plan.serial = value.substr(0, value.find_first_of(" \t"));
        if (key == "path") plan.path_known = value == "known";
        if (key == "modes") plan.modes = value.substr(0, most_calls);
    }
    plan.serial.resize(std::min(plan.serial.size(), longest_serial));
    if (length < 0) plan.contents.reset();
    if (plan.contents) {
        plan.contents->resize(std::min(static_cast<size_t>(length), plan.contents->size()));
    }
    return plan;
}

// The path of the file: the last two characters do not count.
std::string path_of(const Plan &plan) {
    std::string path = prefix + plan.serial.substr(0, 255);
    path.replace(path.size() - 2, 2, "00");
    return path;
}

// The counter file as it ought to behave.
class Model {
  public:
    explicit Model(const std::optional<std::string> &contents) : contents_(contents) {}

    int update(bool set) {
        if (!contents_) contents_ = "";
        const int32_t owner = field(0);
        if (owner == alive_process) return -1;
        if (owner != 0 && owner != getpid()) contents_ = "";
        if (contents_->size() < 2 * field_size && !set) return -1;
        const auto before = static_cast<uint32_t>(field(1));
        const auto count = static_cast<int32_t>(set ? before + 1 : before - 1);
        issplit = field(2);
        put(0, getpid());
        put(1, count);
        put(2, 1);
        if (count == 0) contents_.reset();
        return 0;
    }
    const std::optional<std::string> &contents() const { return contents_; }

    int32_t issplit = 77;

  private:
    // A field that is cut off is 0.
    int32_t field(size_t i) const {
        int32_t value = 0;
        if (contents_->size() < (i + 1) * field_size) return 0;
        memcpy(&value, contents_->data() + i * field_size, field_size);
        return value;
    }
    void put(size_t i, int32_t value) {
        contents_->resize(std::max(contents_->size(), (i + 1) * field_size));
        memcpy(contents_->data() + i * field_size, &value, field_size);
    }

    std::optional<std::string> contents_;
};

void expect_contents(const fuzz::Machine &machine, const std::string &path, const Model &model) {
    if (machine.has_file(path) != model.contents().has_value()) {
        finding("the counter file is %s", machine.has_file(path) ? "there" : "gone");
    }
    if (model.contents() && machine.file(path) != *model.contents()) {
        finding("the counter file has %zu bytes, and others", machine.file(path).size());
    }
}

class Calls {
  public:
    Calls(const Plan &plan, fuzz::Machine &machine, const hdef *h)
        : plan_(plan), path_(path_of(plan)), machine_(machine), h_(h), model_(plan.contents) {
        if (plan.contents) machine.put_file(path_, *plan.contents);
        tf::put(pm_.dev_raw_device, "/dev/x");
        pm_.issplit = model_.issplit;
        // A path that leads elsewhere is never handed out by a set, so no record knows it.
        if (plan.path_known && serial_fits()) tf::put(pm_.lock_file, path_.c_str());
    }

    void run(char mode) {
        const bool set = mode == 's', clear = mode == 'c';
        // Nobody clears a lock that was never his.
        if (clear && !serial_fits()) return;
        const int result = manage_lock(h_, &pm_, set ? TF_LOCK_SET : clear ? TF_LOCK_CLEAR : 2);
        int wanted = -1;
        if (set && serial_fits()) wanted = model_.update(true);
        if (clear && pm_.lock_file == path_) wanted = model_.update(false);
        if (result != wanted) finding("mode %c: %d and not %d", mode, result, wanted);
        fuzz::expect_terminated("lock_file", pm_.lock_file, sizeof pm_.lock_file);
        if (pm_.issplit != model_.issplit) finding("issplit is %d", pm_.issplit);
        expect_contents(machine_, path_, model_);
    }

  private:
    bool serial_fits() const {
        return !plan_.serial.empty() && plan_.serial.substr(0, 255).find('/') == std::string::npos;
    }

    const Plan &plan_;
    const std::string path_;
    fuzz::Machine &machine_;
    const hdef *h_;
    Model model_;
    prim_mir_info pm_{};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const Plan plan = read_plan(fuzz::text_of(data, size));
    fuzz::Machine machine;
    const fuzz::Framework framework;
    machine.alive = {alive_process};
    machine.on_command = [&](const fuzz::Words &) {
        return fuzz::Answer{0, "EMC SYMMETRIX p=/dev/x s=" + plan.serial + "\n"};
    };
    hdef *const h = tf::make_zeroed<hdef>();
    tf::make_capture_files(h);
    Calls calls(plan, machine, h);
    for (const char mode : plan.modes) calls.run(mode);
    tf::remove_capture_files(h);
    tf::free_hdef(h);
    return 0;
}
