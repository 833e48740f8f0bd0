// What the tests of checkpoint, rebuild, volumes, thaw and thaw commit share: a fake array and
// host, recorded commands, and objects that are given back however a test ends.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "method/capture.h"
#include "method/freeze_commit.h"
#include "method/interface.h"
#include "method/mount_lookup.h"
#include "method/paths.h"
#include "method/records.h"
#include "method/text.h"
#include "method/thaw_commit.h"
#include "method/transfer_file.h"
#include "symapi/symapi_session.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/fake_array.h"
#include "tests/support/fake_host.h"
#include "tests/support/method_fixture.h"
#include "tests/support/recorded_commands.h"
#include "tests/support/sleeps.h"

namespace test {

using Lines = std::vector<std::string>;

class Release : public Method {
  protected:
    Release() {
        tf::free_all_records();
        thaw_commit_vols = total_freeze_volumes = 0;
        client_count = emc_clients = freeze_commit_done = 0;
        resolve_symapi = 1;
        mnttab_cached = 0;
        fake_host() = FakeHost();
        sleeps().clear();
        write_file(tf::path::symapi_database, "");
    }
    ~Release() override {
        no_more_faults();
        for (hdef *h : objects_) remove_files(h);
        for (hdef *h : objects_) {
            if (!is_listed(h)) tf::free_hdef(h);
        }
        tf::free_all_records();
    }

    static void remove_files(hdef *h) {
        tf::remove_capture_files(h);
        tf::discard_transfer_file(h);
    }
    static bool is_listed(const hdef *h) {
        for (const dg_entry *dg = DG_LIST; dg != nullptr; dg = dg->next) {
            for (const dg_member *m = dg->members; m != nullptr; m = m->next) {
                if (m->h == h) return true;
            }
        }
        return false;
    }

    // An object as a freeze leaves it: capture files, a type, a mount point. Not in DG_LIST.
    hdef *new_object(int32_t object_type) {
        hdef *h = tf::make_zeroed<hdef>();
        tf::make_capture_files(h);
        h->object_type = object_type;
        tf::put(h->mount_point, "/mnt/copy");
        tf::put(h->vol_group, tf::path::no_volume_group);
        tf::put(h->primary_host, "client1");
        objects_.push_back(h);
        return h;
    }
    // A plain device, listed.
    hdef *new_device(int32_t object_type = TF_OBJECT_RAW_DEVICE) {
        hdef *h = new_object(object_type);
        EXPECT_EQ(dg_insert(h), 0);
        return h;
    }
    // A volume, listed.
    hdef *new_volume(const char *volume = "vola", const char *group = "datadg",
                     int32_t object_type = TF_OBJECT_RAW_DEVICE) {
        hdef *h = new_object(object_type);
        h->is_vol = 1;
        tf::put(h->vol_group, group);
        tf::put(h->vol_name, volume);
        EXPECT_EQ(dg_insert(h), 0);
        return h;
    }
    // The same, its copy imported under the clone name.
    hdef *new_imported_volume(const char *volume = "vola", const char *group = "datadg",
                              int32_t object_type = TF_OBJECT_RAW_DEVICE) {
        hdef *h = new_volume(volume, group, object_type);
        h->dgimport = 1;
        tf::put(h->clone_group, (std::string(group) + "_clone").c_str());
        return h;
    }

    // Appends a device record without telling the array.
    static prim_mir_info *add_record(hdef *h, const char *symid, const char *primary,
                                     const char *bcv, const char *path) {
        prim_mir_info **end = &h->pminfo_list;
        while (*end != nullptr) end = &(*end)->next;
        *end = make_pm(symid, primary, bcv, path);
        tf::put((*end)->bcv_pdevname, ("/dev/rdsk/" + std::string(bcv)).c_str());
        return *end;
    }
    // Appends a device record whose pair the array knows in the given state; it is to be
    // resynchronised at the end.
    prim_mir_info *add_pair(hdef *h, const char *symid, const char *primary, const char *bcv,
                            const char *path, long state) {
        FakeDevice &p = array.add_primary(symid, primary, path);
        array.pair(p, array.add_bcv(symid, bcv, "/dev/rdsk/" + std::string(bcv)), state);
        prim_mir_info *pm = add_record(h, symid, primary, bcv, path);
        pm->sync_at_end = 1;
        return pm;
    }
    static void give_transfer_file(hdef *h, const std::string &path) {
        write_file(path, "clone information\n");
        tf::put(h->transfer_file, path.c_str());
    }
    // The array's name of the n-th device.
    static std::string hex_name(int n) {
        char text[16];
        snprintf(text, sizeof text, "%04X", static_cast<unsigned>(n));
        return text;
    }
    static Lines commands() { return RecordedCommands::lines(); }
    static bool has_capture_files(const hdef *h) {
        return exists(h->out_file) && exists(h->err_file);
    }
    static bool has_no_capture_files(const hdef *h) {
        return !exists(h->out_file) && !exists(h->err_file);
    }
    // The lines that one failed command leaves in the log.
    static std::string failed_command(const hdef *h, const std::string &command) {
        return "do_cmd: Command failed with status=3: " + command + " </dev/null >" + h->out_file +
               " 2>" + h->err_file;
    }

    FakeArray array;
    RecordedCommands recorded;

  private:
    std::vector<hdef *> objects_;
};

}  // namespace test
