#include "method/bcv_control.h"

#include <cstdlib>
#include <cstring>

#include "method/log.h"
#include "method/numbers.h"
#include "method/pause.h"
#include "method/records.h"
#include "method/report.h"
#include "method/text.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

using tf::ErrorNumber;
using tf::fail;
namespace msg = tf::msg;

namespace {

constexpr char control_reporter[] = "emc_tf_bcv_control_all";

// One action on a batch of pairs.
struct Control {
    int32_t action;
    uint32_t option;
    // Two lists of names, each with room for the whole batch and the null slot. The names stay in
    // the records, which outlive the calls.
    const char **standards;
    const char **bcvs;

    int32_t control_array(prim_mir_info *const *group, int32_t count) const;
};

// The number of records from the first on that are on one array.
int32_t group_length(prim_mir_info *const *list, int32_t count) {
    int32_t length = 1;
    while (length < count && strcmp(list[length]->symid, list[0]->symid) == 0) ++length;
    return length;
}

int32_t Control::control_array(prim_mir_info *const *group, int32_t count) const {
    for (int32_t i = 0; i < count; ++i) {
        standards[i] = group[i]->dev_sym_devname;
        bcvs[i] = group[i]->bcvdev_sym_devname;
    }
    standards[count] = bcvs[count] = nullptr;
    const auto call = [&] {
        return emc_tf_SymDevListBcvControl(sH, group[0]->symid, count, standards, bcvs, action,
                                           static_cast<int>(option), 0);
    };
    int code = call();
    while (tf::split_in_background(code)) {
        tf::log_progress("Waiting split in background to finish");
        tf::pause_for(tf::background_split_pause);
        code = call();
    }
    if (code == 0) return tf::success;
    // The text says "to establish" for splits and restores too; operators' scripts match on it.
    return fail(ErrorNumber::parameter, msg::list_control_failed, control_reporter,
                "SymDevListBcvControl", code, emc_tf_SymPerror(sH, code));
}

int32_t report_device_call(const char *function, const char *device, int code) {
    return fail(ErrorNumber::operation, msg::device_call_failed, "wait_for_establish", function,
                device, code, emc_tf_SymPerror(sH, code));
}

// Reads the pair's state anew. shown_as is the function that a failed show is reported as.
int32_t read_state(const prim_mir_info *pm, const char *shown_as, int32_t *state) {
    int code = emc_tf_SymDevSync(sH, pm->symid, pm->bcvdev_sym_devname, tf::refresh_bcv, 0);
    if (code != 0) return report_device_call("SymDevSync", pm->bcvdev_sym_devname, code);
    SymDevice device = {};
    code = emc_tf_SymPdevShow(sH, pm->p_dev_raw_device, &device);
    if (code != 0) return report_device_call(shown_as, pm->p_dev_raw_device, code);
    const SymBcvInfo *info = nullptr;
    const int32_t result = find_bcv_info(&device, pm->bcvdev_sym_devname, &info);
    if (result != 0) return result;
    *state = static_cast<int32_t>(info->bcv_pair_state);
    return tf::success;
}

bool in_progress(int32_t state) {
    return state == tf::PairState::synchronising || state == tf::PairState::restoring;
}

// A wait of half a minute shows up in the log once.
constexpr int polls_between_lines = 30;

}  // namespace

int32_t emc_tf_bcv_control_all(int32_t action, uint32_t option, int32_t count,
                               prim_mir_info **list) {
    if (count <= 0) return tf::success;
    qsort(list, static_cast<size_t>(count), sizeof *list, primmircmp);
    const size_t slots = static_cast<size_t>(count) + 1;
    const tf::HeapOwner<const char *> names(
        static_cast<const char **>(calloc(2 * slots, sizeof(const char *))));
    if (!names) return fail(ErrorNumber::operation, msg::out_of_memory, control_reporter);
    const Control control = {action, option, names.get(), names.get() + slots};
    for (int32_t first = 0; first < count;) {
        const int32_t length = group_length(list + first, count - first);
        const int32_t result = control.control_array(list + first, length);
        if (result != 0) return result;
        first += length;
    }
    return tf::success;
}

int32_t emc_tf_wait_for_establish(const hdef *, prim_mir_info *pm, int32_t *state) {
    *state = tf::PairState::not_read;
    int32_t result = read_state(pm, "SymPdevShow", state);
    int polls = 0;
    while (result == 0 && in_progress(*state)) {
        if (polls % polls_between_lines == 0) {
            tf::log_trace("...Waiting to exit SYNC_IN_PROGRESS state...");
            polls = 0;
        }
        ++polls;
        tf::pause_for(tf::state_poll_pause);
        // A show that fails while polling has always been reported as the sync it belongs to: the
        // pair was shown before, so what the operator has to look at is the refresh.
        result = read_state(pm, "SymDevSync", state);
    }
    return result;
}
