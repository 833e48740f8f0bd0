#include "fuzz/support/checkpoint.h"

#include <algorithm>
#include <cstring>

#include "fuzz/support/every_device.h"
#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "fuzz/support/machine.h"
#include "method/paths.h"
#include "method/records.h"

namespace fuzz {
namespace {

constexpr char counter_file[] =
    "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_0001845001230000";

// Every command of a rebuild makes a disk known or asks for a device.
void expect_commands(const Machine &machine) {
    for (const Words &words : machine.commands) {
        const bool known =
            words[0] == tf::path::disk_tool || words[0] == tf::path::device_information_tool;
        if (!known) finding("a rebuild runs %s", words[0].c_str());
    }
}

// The counter file holds as many locks as the rebuild took.
void expect_locks(const Machine &machine, const hdef *h, int32_t status) {
    int32_t wanted = 0;
    for (const prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
        if (pm->lock_set != 0 && h->is_tgt == 0) ++wanted;
    }
    int32_t fields[3] = {};
    const std::string stored = machine.file(counter_file);
    memcpy(fields, stored.data(), std::min(stored.size(), sizeof fields));
    const bool plausible =
        fields[1] >= 0 && (status == 0 ? fields[1] == wanted : fields[1] <= std::max(wanted, 0));
    if (!plausible) finding("%d locks for %d devices", fields[1], wanted);
}

}  // namespace

Rebuilt rebuild_and_write(const std::string &text, const std::vector<std::string> &stale) {
    Machine machine;
    machine.on_command = answer_of_tools;
    for (const std::string &path : stale) {
        machine.may_unlink.insert(path);
        machine.put_file(path, "stale");
    }
    const EveryDevice array;
    Framework framework;
    ExactText copy(text);
    hdef *h = nullptr;
    Rebuilt result;
    result.status = TimeFinder_rebuild(&h, copy.get());
    expect_commands(machine);
    if (h == nullptr) finding("a rebuild without a record");
    expect_locks(machine, h, result.status);
    for (const std::string &path : stale) {
        if (machine.has_file(path)) finding("the stale copy %s is still there", path.c_str());
    }
    result.additions = {h->is_tgt, h->restore};
    if (result.status != 0) {
        framework.expect_report("TimeFinder_rebuild");
        return result;
    }
    result.clone_information = machine.file(h->transfer_file);
    char *written = nullptr;
    framework.forget();
    if (TimeFinder_ckpt(h, &written) != 0) finding("a rebuilt record has no checkpoint");
    result.text = written;
    free(written);
    const std::vector<std::string> left = machine.temporary_files();
    if (left.size() != 1 || left[0] != h->transfer_file) finding("a temporary file was left");
    return result;
}

std::string with_additions(const std::string &text, const Additions &additions) {
    return "HDEF-is_tgt=" + std::to_string(additions.is_tgt) +
           "\nHDEF-restore=" + std::to_string(additions.restore) + "\n" + text;
}

}  // namespace fuzz
