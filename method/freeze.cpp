#include "method/freeze.h"

#include <cstring>

#include "method/capture.h"
#include "method/interface.h"
#include "method/records.h"
#include "method/report.h"
#include "symapi/symapi_session.h"

namespace {

// Only the first freeze or rebuild of a process brings the array library up, whether it succeeds or
// not.
int32_t start_array_once() {
    if (resolve_symapi != 0) return tf::success;
    resolve_symapi = 1;
    return init_tflib();
}

int32_t check_arguments(const char *config, const char *fifs, int32_t *nvols, int32_t flag,
                        hdef *const *handle) {
    using namespace tf;
    if (nvols == nullptr) {
        return fail(ErrorNumber::parameter, msg::parameter_null, freeze_reporter, "nvols");
    }
    *nvols = 0;
    if (config != nullptr && strnlen(config, config_limit + 1) > config_limit) {
        return fail(ErrorNumber::parameter, msg::config_too_long, freeze_reporter, config_limit);
    }
    if (fifs == nullptr) {
        return fail(ErrorNumber::parameter, msg::parameter_null, freeze_reporter, "fifs");
    }
    if (flag != TF_FREEZE_WAIT && flag != TF_FREEZE_NO_WAIT) {
        return fail(ErrorNumber::parameter, msg::invalid_value, freeze_reporter, "flag", flag);
    }
    if (handle == nullptr) {
        return fail(ErrorNumber::parameter, msg::parameter_null, freeze_reporter, "handle");
    }
    return success;
}

// From here on the object needs the array session; freeze commit counts down again.
int32_t count_client(tf::Freeze &) {
    ++client_count;
    return tf::success;
}

// The one exit of a freeze that did not find its devices. The disk-group list must not name a
// record that is gone, so the object leaves it first.
int32_t give_up(tf::Freeze &f) {
    tf::log_current_message();
    tf::dg_remove(f.h);
    tf::remove_private_file(f.h->out_file);
    tf::remove_private_file(f.h->err_file);
    tf::free_hdef(f.h);
    *f.handle = nullptr;
    return tf::failure;
}

bool find_devices(tf::Freeze &f) {
    using Phase = int32_t (*)(tf::Freeze &);
    constexpr Phase phases[] = {
        tf::describe_object,   // transfer file, host, source
        tf::read_config,       // keywords
        tf::classify_source,   // kind of object, block and raw device
        tf::decide_import,     // dgimport
        tf::enter_disk_group,  // DG_LIST; a volume's devices
        count_client,          // the session is needed
        tf::resolve_paths,     // native paths for multipath names
        tf::store_owners,      // uid and gid of the nodes
    };
    for (const Phase phase : phases) {
        if (phase(f) != tf::success) return false;
    }
    return true;
}

}  // namespace

int32_t TimeFinder_freeze(const char *config, const char *source, const char *fifs, void *,
                          int32_t *nvols, int32_t flag, hdef **handle) {
    const int32_t started = start_array_once();
    if (started != tf::success) return started;
    ++emc_clients;
    if (check_arguments(config, fifs, nvols, flag, handle) != tf::success) {
        if (handle != nullptr) *handle = nullptr;
        return tf::failure;
    }
    tf::Freeze f{config, source != nullptr ? source : "", fifs, flag == TF_FREEZE_NO_WAIT, handle};
    if (tf::allocate_records(f) != tf::success) return tf::failure;
    if (!find_devices(f)) return give_up(f);
    // The record now holds array locks: from here on it stays with the caller, who rolls a failure
    // back with thaw and thaw commit.
    const int32_t pairs = tf::find_all_pairs(f);
    return f.no_wait ? pairs : tf::finish_waiting_freeze(pairs);
}
