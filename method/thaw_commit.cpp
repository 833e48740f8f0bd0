#include "method/thaw_commit.h"

#include "method/bcv_control.h"
#include "method/capture.h"
#include "method/freeze_commit.h"
#include "method/interface.h"
#include "method/lock_file.h"
#include "method/log.h"
#include "method/pair_index.h"
#include "method/paths.h"
#include "method/records.h"
#include "method/report.h"
#include "method/restore.h"
#include "method/transfer_file.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"
#include "timefinder.h"

int32_t thaw_commit_vols;

namespace {

using tf::ErrorNumber;
using tf::fail;
using tf::thaw_commit_reporter;
namespace msg = tf::msg;

constexpr char prepare_reporter[] = "emc_tf_establish_prepare";

// How the session is opened: on the existing database, with the library loaded when need be.
constexpr int32_t mode_index = 2;
constexpr int32_t link_library = 1;

// The pairs to be resynchronised, collected in primmirlist.
struct ResyncList {
    int32_t count = 0;
    tf::PairIndex index{};
};

// A session shows the array as it was when the session was opened, so a new one is opened. *status
// becomes 11 when the old one could not be ended; the new one is opened all the same.
int32_t reopen_session(int32_t *status) {
    if (sH != -1) *status = tf::end_session(thaw_commit_reporter);
    tf::log_trace("Waiting for SymInit...");
    const int32_t code = emc_tf__SymInit(tf::path::symapi_database, &sH, mode_index, link_library);
    if (code == 0) return tf::success;
    return fail(ErrorNumber::operation, msg::call_failed, thaw_commit_reporter, "SymInit", code,
                emc_tf_SymPerror(sH, code));
}

// Only the device name is compared, not the array: of two primaries of the same name on two arrays
// the first one met is resynchronised. The batch table has no two entries of one name, and every
// operation that fills it relies on that.
void list_pair(ResyncList *list, prim_mir_info *pm) {
    if (list->index.contains(pm->dev_sym_devname, list->count)) return;
    list->count = tf::append_pair(pm, list->count);
    tf::log_progress("Adding <%s, %s> to resync list", pm->dev_sym_devname, pm->bcvdev_sym_devname);
}

int32_t prepare_pair(const hdef *h, ResyncList *list, prim_mir_info *pm) {
    if (pm->sync_at_end == 0) return tf::success;
    int32_t waited_state = tf::PairState::not_read;
    int32_t status = emc_tf_wait_for_establish(h, pm, &waited_state);
    if (status != 0) return status;
    long state = 0;
    status = tf::refresh_bcv_information(prepare_reporter, *pm);
    if (status == 0) status = tf::show_pair_state(prepare_reporter, *pm, &state);
    if (status != 0) return status;
    if (state == tf::PairState::synchronising || state == tf::PairState::synchronised) {
        tf::log_progress("device %s already established", pm->p_dev_raw_device);
    } else {
        list_pair(list, pm);
    }
    return tf::success;
}

// A lock that cannot be released does not fail the call: the next owner takes it over once this
// process has ended.
void release_lock(const hdef *h, prim_mir_info *pm) {
    if (pm->lock_set != 1) return;
    pm->lock_set = 0;
    if (manage_lock(h, pm, TF_LOCK_CLEAR) != 0) {
        tf::log_progress("could not unlock device %s", pm->p_dev_raw_device);
    }
}

// Trips at 2047 pairs while the message names 2048: operators' scripts know the quoted number.
int32_t check_limit(const ResyncList &list) {
    if (list.count <= tf::batch_limit) return tf::success;
    return fail(ErrorNumber::parameter, msg::too_many_devices, thaw_commit_reporter, list.count,
                tf::quoted_device_limit);
}

int32_t prepare_object(const hdef *h, ResyncList *list) {
    for (prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
        int32_t status = prepare_pair(h, list, pm);
        if (status == 0) {
            release_lock(h, pm);
            status = check_limit(*list);
        }
        if (status != 0) {
            tf::log_progress("split_device failed");
            return status;
        }
    }
    return tf::success;
}

int32_t prepare_resync(ResyncList *list) {
    for (const dg_entry *dg = DG_LIST; dg != nullptr; dg = dg->next) {
        for (const dg_member *member = dg->members; member != nullptr; member = member->next) {
            const int32_t status = prepare_object(member->h, list);
            if (status != 0) return status;
        }
    }
    return tf::success;
}

int32_t control_pairs(const hdef *h, int32_t count) {
    int action = tf::BcvAction::incremental_establish;
    uint32_t option = tf::establish_option(emc_tf_SymVersion);
    if (h->restore != 0) {
        tf::log_progress("Restoring from mirror");
        action = tf::BcvAction::restore;
        option = tf::BcvOption::none;
    }
    tf::log_progress("Total BCVs to resync : %d", count);
    tf::log_progress("Resync started ...");
    const int32_t status = emc_tf_bcv_control_all(action, option, count, primmirlist);
    tf::log_progress("Resync end");
    return status;
}

// The last wait decides about a restore: when every pair ends well, a failed control call is lost.
int32_t resync_pairs(const hdef *h, int32_t count) {
    const int32_t status = control_pairs(h, count);
    return h->restore != 0 ? tf::wait_for_restore(h, count) : status;
}

// The work on the array for all objects of the process.
int32_t resync_all_objects(hdef *h) {
    int32_t status = tf::success;
    const int32_t reopened = reopen_session(&status);
    if (reopened != 0) return reopened;
    tf::clear_pairs();
    ResyncList list;
    // Behind a session that would not end no object is touched.
    if (status == 0) {
        status = prepare_resync(&list);
        if (status != 0) return status;
    }
    if (list.count != 0) {
        status = resync_pairs(h, list.count);
        if (h->restore != 0 && status != 0) return status;
    }
    if (h->restore != 0) {
        status = tf::bring_restored_back(h, status);
        if (status != 0) return status;
    }
    if (status == 0) tf::discard_transfer_file(h);
    return status;
}

int32_t thaw_commit(hdef *h) {
    thaw_commit_vols += 1;
    if (h->restore != 0) {
        bool complete = false;
        const int32_t status = tf::prepare_restore(h, &complete);
        if (status != 0 || !complete) return status;
    }
    if (thaw_commit_vols < total_freeze_volumes) return tf::success;
    return resync_all_objects(h);
}

}  // namespace

int32_t TimeFinder_thaw_commit(hdef *fih) {
    if (fih == nullptr) {
        return fail(ErrorNumber::parameter, msg::parameter_null, thaw_commit_reporter, "fih");
    }
    tf::remove_capture_files(fih);
    const int32_t status = thaw_commit(fih);
    // Nothing comes after a thaw commit that would read what a restore's commands wrote.
    if (status == 0) tf::remove_capture_files(fih);
    return status;
}
