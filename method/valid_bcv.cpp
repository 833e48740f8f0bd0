#include "method/valid_bcv.h"

#include <algorithm>
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

constexpr char reporter[] = "find_valid_bcv";
// What the logical device names of the product's own BCVs begin with.
constexpr char label[] = "TSR-BCV";

bool equal(const char *a, const char *b) {
    return strcmp(a, b) == 0;
}

bool is_labelled(const SymDevice &bcv) {
    return strncmp(bcv.ldevname, label, sizeof label - 1) == 0;
}

bool is_synchronised(const SymBcvInfo &entry) {
    return entry.bcv_pair_state == tf::PairState::synchronised ||
           entry.bcv_pair_state == tf::PairState::restored;
}

int32_t entry_count(const SymDevice &device) {
    return std::min<int32_t>(device.bcv_count, SYM_MAX_BCVS);
}

// The choice of one device's BCV. A refresh rewrites the record while its entries are walked, so
// entries are taken by index and the names that calls need are copies.
class Selection {
  public:
    Selection(SymDevice *device, const SymBcvInfo **chosen, int32_t *need_establish)
        : device_(*device), chosen_(*chosen), need_establish_(*need_establish) {
        tf::put(symid_, device->symid);
        tf::put(name_, device->sym_devname);
        tf::put(path_, device->pdevname);
        chosen_ = nullptr;
        need_establish_ = 0;
    }

    int32_t survey_labels();
    int32_t select();

  private:
    int32_t show_bcv(const char *name, SymDevice *bcv) const;
    bool is_associated(const SymBcvInfo &entry, const SymDevice &bcv) const;
    bool lacks_label(const SymDevice &bcv) const { return labels_in_use_ && !is_labelled(bcv); }
    int32_t consider(const SymBcvInfo &entry);
    void consider_unsynchronised(const SymBcvInfo &entry, const SymDevice &bcv);
    int32_t release(const SymBcvInfo &entry, const SymDevice &bcv);
    void wait_for_release(const char *bcv);
    bool refresh(const char *bcv);

    SymDevice &device_;
    const SymBcvInfo *&chosen_;
    int32_t &need_establish_;
    bool labels_in_use_ = false;
    bool decided_ = false;  // a synchronised pair was chosen, which nothing can surpass
    char symid_[SYM_SYMID_SIZE];
    char name_[SYM_DEVNAME_SIZE];
    char path_[SYM_PDEV_SIZE];
};

int32_t Selection::show_bcv(const char *name, SymDevice *bcv) const {
    const int code = emc_tf_SymDevShow(sH, symid_, name, bcv);
    if (code == 0) return tf::success;
    return fail(ErrorNumber::operation, msg::device_call_failed, reporter, "SymDevShow", name, code,
                emc_tf_SymPerror(sH, code));
}

bool Selection::is_associated(const SymBcvInfo &entry, const SymDevice &bcv) const {
    return equal(device_.dgname, entry.bcvdev_dgname) && equal(device_.dgname, entry.dev_dgname) &&
           equal(device_.sym_devname, entry.dev_sym_devname) && equal(device_.dgname, bcv.dgname);
}

// Labels count as soon as one BCV of the device carries one.
int32_t Selection::survey_labels() {
    for (int32_t i = 0; i < entry_count(device_) && !labels_in_use_; ++i) {
        SymDevice bcv = {};
        const int32_t result = show_bcv(device_.bcvs[i].bcvdev_sym_devname, &bcv);
        if (result != 0) return result;
        labels_in_use_ = is_labelled(bcv);
    }
    return tf::success;
}

int32_t Selection::select() {
    for (int32_t i = 0; i < entry_count(device_) && !decided_; ++i) {
        const int32_t result = consider(device_.bcvs[i]);
        if (result != 0) return result;
    }
    return tf::success;
}

int32_t Selection::consider(const SymBcvInfo &entry) {
    tf::log_trace("%s: primary %s, BCV %s dgname = %s, bcvdev_dgname = %s bcv pair state %d ",
                  reporter, device_.sym_devname, entry.bcvdev_sym_devname, device_.dgname,
                  entry.bcvdev_dgname, static_cast<int>(entry.bcv_pair_state));
    SymDevice bcv = {};
    if (const int32_t result = show_bcv(entry.bcvdev_sym_devname, &bcv); result != 0) return result;
    if (!is_synchronised(entry)) {
        consider_unsynchronised(entry, bcv);
        return tf::success;
    }
    if (lacks_label(bcv)) {
        tf::log_trace("%s: This BCV does not have TSR-BCV label: %s", reporter, bcv.ldevname);
        return tf::success;
    }
    if (!is_associated(entry, bcv)) return release(entry, bcv);
    chosen_ = &entry;
    need_establish_ = 0;
    decided_ = true;
    return tf::success;
}

// A labelled BCV is ours to establish. An unlabelled one is only a last resort, and whether it may
// be established is left to what discovery finds out about it.
void Selection::consider_unsynchronised(const SymBcvInfo &entry, const SymDevice &bcv) {
    if (!is_associated(entry, bcv)) return;
    if (is_labelled(bcv)) {
        chosen_ = &entry;
        need_establish_ = 1;
    } else if (chosen_ == nullptr) {
        chosen_ = &entry;
    }
}

// Splits a BCV off that is synchronised with this device although it belongs elsewhere.
int32_t Selection::release(const SymBcvInfo &entry, const SymDevice &bcv) {
    // The standard device's group stands here under two names, the first of which promises the
    // BCV's; readers of these logs know the line as it is.
    tf::log_trace(
        "%s: the BCV synchoronized with primary disk does not have correct association : BCV: "
        "<bcvdev_dgname: %s>, <bcvdev_dgname2: %s> <bcvdev_dgname3: %s> <dev_sym_devname: %s>",
        reporter, entry.dev_dgname, bcv.dgname, entry.dev_dgname, entry.dev_sym_devname);
    char bcv_name[SYM_DEVNAME_SIZE];
    tf::put(bcv_name, entry.bcvdev_sym_devname);
    const int code = emc_tf_SymDevBcvControl(sH, symid_, name_, bcv_name, tf::BcvAction::split,
                                             static_cast<int>(tf::split_option(emc_tf_SymVersion)));
    if (code != 0) {
        return fail(ErrorNumber::session, msg::device_control_failed, reporter, name_,
                    tf::BcvAction::split, code, emc_tf_SymPerror(sH, code));
    }
    wait_for_release(bcv_name);
    need_establish_ = 1;
    return tf::success;
}

// Whatever ends the wait, it is no failure: the entry is done with, and the caller reads the device
// anew before it relies on it. The array decides how long a split takes, so there is no limit.
void Selection::wait_for_release(const char *bcv) {
    const SymBcvInfo *entry = nullptr;
    do {
        tf::pause_for(tf::state_poll_pause);
        if (!refresh(bcv) || find_bcv_info(&device_, bcv, &entry) != 0) return;
    } while (entry->bcv_pair_state == tf::PairState::splitting);
}

// Reads the device's record anew. It is replaced only by a whole one, and the choice made so far
// moves to its new place in it.
bool Selection::refresh(const char *bcv) {
    if (emc_tf_SymDevSync(sH, symid_, bcv, tf::refresh_bcv, 0) != 0) return false;
    SymDevice fresh = {};
    if (emc_tf_SymPdevShow(sH, path_, &fresh) != 0) return false;
    char chosen_name[SYM_DEVNAME_SIZE] = "";
    if (chosen_ != nullptr) tf::put(chosen_name, chosen_->bcvdev_sym_devname);
    device_ = fresh;
    if (chosen_ == nullptr) return true;
    const SymBcvInfo *const end = device_.bcvs + std::max(entry_count(device_), 0);
    const SymBcvInfo *const found = std::find_if(
        static_cast<const SymBcvInfo *>(device_.bcvs), end,
        [&](const auto &entry) { return equal(entry.bcvdev_sym_devname, chosen_name); });
    chosen_ = found != end ? found : nullptr;
    return true;
}

}  // namespace

int32_t find_valid_bcv(SymDevice *device, const SymBcvInfo **chosen, int32_t *need_establish) {
    Selection selection(device, chosen, need_establish);
    if (const int32_t result = selection.survey_labels(); result != 0) return result;
    return selection.select();
}
