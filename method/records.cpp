#include "method/records.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "method/log.h"
#include "method/pair_index.h"
#include "method/private_file.h"
#include "method/report.h"
#include "method/text.h"

using tf::ErrorNumber;
using tf::fail;
namespace msg = tf::msg;

dg_entry *DG_LIST;
prim_mir_info *primmirlist[TF_PRIMMIRLIST_SIZE];
int32_t prim_mir_info_size;

namespace {

// Line numbers that the messages of dg_insert have always carried; support looks failures up by
// them, so they do not follow the source.
constexpr int line_of_group = 319;
constexpr int line_of_member = 334;

dg_entry *add_group(const char *dg_name) {
    dg_entry *added = tf::make_zeroed<dg_entry>();
    if (added == nullptr) return nullptr;
    tf::put(added->dg_name, dg_name);
    added->next = DG_LIST;
    DG_LIST = added;
    return added;
}

dg_member *add_member(dg_entry *group, hdef *h) {
    dg_member *added = tf::make_zeroed<dg_member>();
    if (added == nullptr) return nullptr;
    added->h = h;
    added->next = group->members;
    group->members = added;
    return added;
}

const SymBcvInfo *entry_of(const SymDevice &device, const char *bcv) {
    const int32_t count = std::min<int32_t>(device.bcv_count, SYM_MAX_BCVS);
    for (int32_t i = 0; i < count; ++i) {
        if (strcmp(device.bcvs[i].bcvdev_sym_devname, bcv) == 0) return &device.bcvs[i];
    }
    return nullptr;
}

// A pair that is polled once a second shows up in the log only when it changes. The last pair that
// was logged, by the name of its BCV alone, is remembered for the life of the process.
void log_bcv_info_when_changed(const SymBcvInfo &info) {
    static char last_bcv[TF_PATH_SIZE];
    static long last_state;
    if (last_state == info.bcv_pair_state && strcmp(last_bcv, info.bcvdev_sym_devname) == 0) {
        return;
    }
    tf::log_bcv_info(info);
    tf::put(last_bcv, info.bcvdev_sym_devname);
    last_state = info.bcv_pair_state;
}

void free_members(dg_member *first) {
    while (first != nullptr) {
        dg_member *const gone = first;
        first = gone->next;
        tf::free_hdef(gone->h);
        free(gone);
    }
}

// Frees the device lists and leaves each object named in one place only, since one that was entered
// twice must not be freed twice. The list head of an object that was met points at a mark
// meanwhile, which makes this linear and needs no memory.
void free_devices_of_all_objects() {
    static prim_mir_info mark;
    for (dg_entry *group = DG_LIST; group != nullptr; group = group->next) {
        for (dg_member *member = group->members; member != nullptr; member = member->next) {
            if (member->h->pminfo_list == &mark) {
                member->h = nullptr;
                continue;
            }
            tf::free_devices(member->h->pminfo_list);
            member->h->pminfo_list = &mark;
        }
    }
    for (dg_entry *group = DG_LIST; group != nullptr; group = group->next) {
        for (dg_member *member = group->members; member != nullptr; member = member->next) {
            if (member->h != nullptr) member->h->pminfo_list = nullptr;
        }
    }
}

// What a process keeps for its lifetime goes when the framework unloads the library.
__attribute__((destructor)) void free_at_unload() {
    tf::free_all_records();
}

}  // namespace

dg_entry *dg_find(const char *dg_name) {
    dg_entry *group = DG_LIST;
    while (group != nullptr && strcmp(group->dg_name, dg_name) != 0) group = group->next;
    return group;
}

int32_t dg_insert(hdef *h) {
    constexpr char reporter[] = "dg_insert";
    dg_entry *group = dg_find(h->vol_group);
    if (group == nullptr) group = add_group(h->vol_group);
    if (group == nullptr) {
        return fail(ErrorNumber::memory, msg::no_memory, reporter, line_of_group);
    }
    // A group made just above stays listed when this fails; dg_remove takes it out.
    if (add_member(group, h) == nullptr) {
        return fail(ErrorNumber::memory, msg::no_memory, reporter, line_of_member);
    }
    if (h->is_vol != 0) ++group->vol_count;
    return tf::success;
}

int primmircmp(const void *a, const void *b) {
    return strcmp((*static_cast<const prim_mir_info *const *>(a))->symid,
                  (*static_cast<const prim_mir_info *const *>(b))->symid);
}

int32_t find_bcv_info(const SymDevice *device, const char *bcv, const SymBcvInfo **out) {
    const SymBcvInfo *const found = entry_of(*device, bcv);
    if (found == nullptr) {
        return fail(ErrorNumber::no_bcv, msg::cannot_find_bcv, "find_bcv_info", bcv,
                    device->sym_devname, device->dgname);
    }
    *out = found;
    log_bcv_info_when_changed(*found);
    return tf::success;
}

namespace tf {

void log_bcv_info(const SymBcvInfo &info) {
    log_trace("\tDevice is part of a BCV pair. bcvinfo:");
    log_trace("\t\tdev_serial_id=%s", info.dev_serial_id);
    log_trace("\t\tdev_sym_devname=%s", info.dev_sym_devname);
    log_trace("\t\tdev_dgname=%s", info.dev_dgname);
    log_trace("\t\tbcvdev_serial_id=%s", info.bcvdev_serial_id);
    log_trace("\t\tbcvdev_sym_devname=%s", info.bcvdev_sym_devname);
    log_trace("\t\tbcvdev_dgname=%s", info.bcvdev_dgname);
    log_trace("\t\tbcv_pair_state=%ld", info.bcv_pair_state);
}

void dg_remove(const hdef *h) {
    dg_entry **link = &DG_LIST;
    while (*link != nullptr && strcmp((*link)->dg_name, h->vol_group) != 0) link = &(*link)->next;
    dg_entry *const group = *link;
    if (group == nullptr) return;
    for (dg_member **place = &group->members; *place != nullptr;) {
        dg_member *const member = *place;
        if (member->h != h) {
            place = &member->next;
            continue;
        }
        *place = member->next;
        free(member);
        if (h->is_vol != 0) --group->vol_count;
    }
    if (group->members != nullptr) return;
    *link = group->next;
    free(group);
}

void free_devices(prim_mir_info *first) {
    while (first != nullptr) {
        prim_mir_info *const gone = first;
        first = gone->next;
        free(gone);
    }
}

void free_hdef(hdef *h) {
    if (h == nullptr) return;
    // Operations remove the capture files of a record that has both; where only one name could be
    // had, that file stays until here.
    if (h->out_file == nullptr) tf::remove_private_file(h->err_file);
    if (h->err_file == nullptr) tf::remove_private_file(h->out_file);
    free_devices(h->pminfo_list);
    free(h->out_file);
    free(h->err_file);
    free(h);
}

void free_all_records() {
    clear_pairs();
    free_devices_of_all_objects();
    while (DG_LIST != nullptr) {
        dg_entry *const gone = DG_LIST;
        DG_LIST = gone->next;
        free_members(gone->members);
        free(gone);
    }
}

}  // namespace tf
