// Freeze commit, before the split: which pairs of all frozen objects are to be split.
#include "method/freeze_commit.h"
#include "method/log.h"
#include "method/pair_index.h"
#include "method/report.h"

namespace tf {
namespace {

constexpr char reporter[] = "emc_tf_split_prepare";

// What is collected, while it is collected.
struct SplitList {
    int32_t count = 0;
    PairIndex index{};
};

// The pair's state as the array has it now.
int32_t read_state(const prim_mir_info &pm, long *state) {
    if (refresh_bcv_information(reporter, pm) != success) return failure;
    log_trace("%s: calling SymPdevShow with disk %s", reporter, pm.p_dev_raw_device);
    return show_pair_state(reporter, pm, state);
}

// A primary that two objects share is split once. Only its name is compared: equal names on two
// arrays count as one device, which the table's invariant has always meant.
void add_pair(SplitList &list, prim_mir_info *pm) {
    if (list.index.contains(pm->dev_sym_devname, list.count)) return;
    list.count = append_pair(pm, list.count);
    log_progress("Adding <%s, %s> to split list", pm->dev_sym_devname, pm->bcvdev_sym_devname);
}

int32_t refuse_pair(prim_mir_info *pm, long state) {
    pm->sync_at_end = 0;
    return fail(ErrorNumber::disk_group, msg::cannot_split_at_freeze, reporter,
                pm->p_dev_raw_device, state);
}

int32_t prepare_pair(SplitList &list, prim_mir_info *pm) {
    long state = 0;
    const int32_t status = read_state(*pm, &state);
    if (status != success) return status;
    if (state == PairState::synchronised || state == PairState::restored) {
        add_pair(list, pm);
        return success;
    }
    if (state == PairState::split && pm->issplit != 0) {
        log_progress("Device %s has already been split", pm->p_dev_raw_device);
        return success;
    }
    return refuse_pair(pm, state);
}

// The limit trips below the number that the message quotes; both are known to operators.
int32_t check_limit(const SplitList &list) {
    if (list.count <= batch_limit) return success;
    return fail(ErrorNumber::parameter, msg::too_many_devices, reporter, list.count,
                quoted_device_limit);
}

int32_t prepare_object(SplitList &list, const hdef *h) {
    for (prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
        const int32_t status = prepare_pair(list, pm);
        if (status != success) {
            log_progress("split_device failed");
            return status;
        }
        if (check_limit(list) != success) return failure;
    }
    return success;
}

int32_t prepare_group(SplitList &list, const dg_entry *group) {
    for (const dg_member *member = group->members; member != nullptr; member = member->next) {
        const int32_t status = prepare_object(list, member->h);
        if (status != success) return status;
    }
    return success;
}

}  // namespace

int32_t split_prepare(int32_t *count) {
    clear_pairs();
    SplitList list;
    for (const dg_entry *group = DG_LIST; group != nullptr; group = group->next) {
        const int32_t status = prepare_group(list, group);
        if (status != success) return status;
    }
    *count = list.count;
    return success;
}

}  // namespace tf
