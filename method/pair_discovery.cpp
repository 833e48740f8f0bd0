#include "method/pair_discovery.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "include/symapi.h"
#include "method/bcv_control.h"
#include "method/descriptor.h"
#include "method/device_path.h"
#include "method/lock_file.h"
#include "method/log.h"
#include "method/pair_index.h"
#include "method/paths.h"
#include "method/records.h"
#include "method/report.h"
#include "method/text.h"
#include "method/valid_bcv.h"
#include "snap/snap.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

namespace {

constexpr char reporter[] = "find_bcv_pair";

// A device is its own pair's primary when the names agree this far.
constexpr size_t compared_name_length = 8;
constexpr int32_t enrol_every_pair = 1;
constexpr int32_t establish_fully = 2;

// Discovery of one pair.
struct PairDiscovery {
    hdef *h;
    prim_mir_info *pm;
    bool query_only;
    SymDevice device;  // of the primary; from look_at_bcv on of the BCV
    // A copy: reading the record anew would pull the entry away.
    SymBcvInfo choice;
    bool has_choice;
    int32_t need_establish;
    int32_t pair_state;
};

tf::PairIndex enrolled;

int32_t array_call_failed(tf::ErrorNumber number, const char *call, const char *device, int code) {
    return tf::fail(number, tf::msg::device_call_failed, reporter, call, device, code,
                    emc_tf_SymPerror(sH, code));
}

// From here on the primary is addressed through p_dev_raw_device.
void choose_primary_path(prim_mir_info *pm) {
    tf::log_trace("%s: Block device %s mapped to raw device %s", reporter, pm->dev_block_device,
                  pm->dev_raw_device);
    if (strstr(pm->p_dev_raw_device, tf::path::multipath_disk) != nullptr) {
        tf::log_trace("%s: Branching to powerpath", reporter);
        return;
    }
    tf::put(pm->p_dev_raw_device, pm->dev_raw_device);
}

int32_t take_array_lock(const PairDiscovery &op) {
    if (manage_lock(op.h, op.pm, TF_LOCK_SET) != 0) {
        return tf::fail(tf::ErrorNumber::operation, tf::msg::cannot_lock_device, reporter,
                        op.pm->p_dev_raw_device);
    }
    op.pm->lock_set = 1;
    return tf::success;
}

int32_t read_primary(PairDiscovery *op) {
    const char *const path = op->pm->p_dev_raw_device;
    int code = emc_tf_SymPdevSync(sH, path, tf::refresh_primary);
    if (code != 0) {
        return array_call_failed(tf::ErrorNumber::operation, "SymPdevSync", path, code);
    }
    code = emc_tf_SymPdevShow(sH, path, &op->device);
    if (code != 0) {
        return array_call_failed(tf::ErrorNumber::pair_query, "SymPdevShow", path, code);
    }
    return tf::success;
}

int32_t choose_bcv(PairDiscovery *op) {
    const SymBcvInfo *chosen = nullptr;
    op->need_establish = 0;
    const int32_t result = find_valid_bcv(&op->device, &chosen, &op->need_establish);
    op->has_choice = chosen != nullptr;
    if (op->has_choice) op->choice = *chosen;
    return result;
}

void log_names(const SymDevice &device) {
    tf::log_trace("\tdgname=%s", device.dgname);
    tf::log_trace("\tldevname=%s", device.ldevname);
}

void log_device(const SymDevice &device) {
    tf::log_trace("\tvendor_id=%s", device.vendor_id);
    tf::log_trace("\tproduct_id=%s", device.product_id);
    tf::log_trace("\tproduct_rev=%s", device.product_rev);
    tf::log_trace("\tsymid=%s", device.symid);
    tf::log_trace("\tdevice_serial_id=%s", device.device_serial_id);
    tf::log_trace("\tsym_devname=%s", device.sym_devname);
    tf::log_trace("\tpdevname=%s", device.pdevname);
}

int32_t look_at_primary(PairDiscovery *op) {
    int32_t result = read_primary(op);
    if (result != tf::success) return result;
    result = choose_bcv(op);
    if (result != tf::success) return result;
    tf::log_trace("%s: Device %s is a Symmetrix:", reporter, op->pm->p_dev_raw_device);
    log_device(op->device);
    log_names(op->device);
    return tf::success;
}

// The pair is to be resynchronised at the end even where it turns out to be synchronised already:
// whoever asks for a full establish wants the mirrors back afterwards.
int32_t establish_when_asked(PairDiscovery *op) {
    if (op->query_only || op->h->sync_at_start != establish_fully) return tf::success;
    op->pm->sync_at_end = 1;
    if (op->has_choice && op->choice.bcv_pair_state == tf::PairState::synchronised) {
        return tf::success;
    }
    tf::log_trace("Issuing full establish...");
    const int code = emc_tf_SymLdevBcvControl(sH, op->device.dgname, op->device.ldevname,
                                              tf::BcvAction::full_establish, 0);
    if (code != 0) {
        return array_call_failed(tf::ErrorNumber::pair_query, "SymLdevBcvControl",
                                 op->pm->p_dev_raw_device, code);
    }
    const int32_t result = read_primary(op);
    return result != tf::success ? result : choose_bcv(op);
}

int32_t judge_choice(PairDiscovery *op) {
    if (!op->has_choice) {
        return tf::fail(tf::ErrorNumber::no_bcv, tf::msg::not_in_pair, reporter,
                        op->pm->p_dev_raw_device);
    }
    const SymBcvInfo &choice = op->choice;
    tf::log_bcv_info(choice);
    if (strncmp(op->device.sym_devname, choice.dev_sym_devname, compared_name_length) != 0) {
        tf::fail(tf::ErrorNumber::not_primary, tf::msg::device_not_primary, reporter,
                 op->pm->p_dev_raw_device);
        tf::log_progress("\tPrimary device is: dev_serial_id=%s, dev_sym_devname=%s",
                         choice.dev_serial_id, choice.dev_sym_devname);
        return tf::failure;
    }
    tf::put(op->pm->symid, op->device.symid);
    tf::put(op->pm->dev_sym_devname, choice.dev_sym_devname);
    tf::put(op->pm->bcvdev_sym_devname, choice.bcvdev_sym_devname);
    op->pair_state = static_cast<int32_t>(choice.bcv_pair_state);
    return tf::success;
}

int32_t look_at_bcv(PairDiscovery *op) {
    prim_mir_info *const pm = op->pm;
    op->device = {};
    const int code = emc_tf_SymDevShow(sH, pm->symid, pm->bcvdev_sym_devname, &op->device);
    if (code != 0) {
        return array_call_failed(tf::ErrorNumber::operation, "SymDevShow", pm->bcvdev_sym_devname,
                                 code);
    }
    tf::log_trace("%s: BCV %s information:", reporter, pm->bcvdev_sym_devname);
    log_device(op->device);
    return tf::success;
}

// An alternate port that works is used whether or not the first path does; the probe of the first
// path is there for its line in the log alone.
void choose_bcv_path(SymDevice *bcv) {
    if (strstr(bcv->pdevname, tf::path::native_disk) != nullptr) isPathActive(bcv->pdevname);
    const char *const port = tf::usable_port(*bcv);
    if (port != nullptr) tf::put(bcv->pdevname, port);
}

// A BCV that this host does not see is no failure: a backup host sees it.
void find_bcv_path(PairDiscovery *op) {
    SymDevice *const bcv = &op->device;
    choose_bcv_path(bcv);
    tf::log_trace("\tpdevname=%s", bcv->pdevname);
    tf::prefer_disk_node(bcv);
    log_names(*bcv);
    tf::log_bcv_info(op->choice);
    if (bcv->pdevname[0] == '\0') {
        tf::log_trace("WARN : The BCV pair of the primary device %s is not visible on this host",
                      op->pm->p_dev_raw_device);
        tf::put(bcv->pdevname, tf::path::unseen_bcv);
    }
}

int32_t map_bcv_path(const PairDiscovery &op) {
    prim_mir_info *const pm = op.pm;
    tf::put(pm->bcv_pdevname, op.device.pdevname);
    tf::put(pm->bcv_raw_device, op.device.pdevname);
    if (rawtoblock(pm->bcv_raw_device, pm->bcv_block_device, sizeof pm->bcv_block_device) ==
        nullptr) {
        return tf::fail(tf::ErrorNumber::operation, tf::msg::cannot_map_raw_to_block, reporter,
                        pm->bcv_raw_device);
    }
    tf::log_trace("%s: BCV raw device %s mapped to block device %s", reporter, pm->bcv_raw_device,
                  pm->bcv_block_device);
    return tf::success;
}

int32_t await_establish(PairDiscovery *op) {
    const int32_t result = emc_tf_wait_for_establish(op->h, op->pm, &op->pair_state);
    if (result != tf::success) tf::log_progress("wait_for_establish failed");
    return result;
}

// The count that trips is one below the number that the message quotes: scripts of operators know
// both.
int32_t enrol(prim_mir_info *pm) {
    if (enrolled.contains(pm->dev_sym_devname, prim_mir_info_size)) return tf::success;
    prim_mir_info_size = tf::append_pair(pm, prim_mir_info_size);
    if (prim_mir_info_size > tf::batch_limit) {
        return tf::fail(tf::ErrorNumber::parameter, tf::msg::too_many_devices, reporter,
                        prim_mir_info_size, tf::quoted_device_limit);
    }
    return tf::success;
}

int32_t enrol_when_wanted(const PairDiscovery &op) {
    if (op.h->sync_at_start != enrol_every_pair && op.need_establish == 0) return tf::success;
    op.pm->sync_at_end = 1;
    if (op.pair_state == tf::PairState::synchronised) {
        tf::log_progress("device %s already established", op.pm->p_dev_raw_device);
        return tf::success;
    }
    return enrol(op.pm);
}

// Everything up to the BCV's paths.
int32_t discover(PairDiscovery *op) {
    choose_primary_path(op->pm);
    int32_t result = take_array_lock(*op);
    if (result == tf::success) result = look_at_primary(op);
    if (result == tf::success) result = establish_when_asked(op);
    if (result == tf::success) result = judge_choice(op);
    if (result == tf::success) result = look_at_bcv(op);
    if (result != tf::success) return result;
    find_bcv_path(op);
    return map_bcv_path(*op);
}

}  // namespace

int32_t find_bcv_pair(hdef *h, prim_mir_info *pm, int32_t query_only) {
    PairDiscovery op = {};
    op.h = h;
    op.pm = pm;
    op.query_only = query_only != 0;
    int32_t result = discover(&op);
    if (result != tf::success || op.query_only) return result;
    result = await_establish(&op);
    return result != tf::success ? result : enrol_when_wanted(op);
}

int32_t isPathActive(const char *path) {
    const tf::DescriptorOwner file(open(path, O_RDONLY | O_CLOEXEC));
    if (file) return 1;
    const int error = errno;
    tf::log_trace("WARN: path %s is down; errno=%d (%s)", path, error, strerror(error));
    return 0;
}

char *rawtoblock(const char *raw, char *out, size_t size) {
    const tf::HeapOwner<char> block(raw_to_block(raw));
    if (!block) return nullptr;
    Q_strlcpy(out, block.get(), size);
    return out;
}
