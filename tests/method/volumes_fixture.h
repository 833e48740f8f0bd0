// What the tests of making a copy accessible share: objects whose mirrors are there, and the call.
#pragma once

#include <sys/stat.h>

#include <cstring>

#include "tests/method/release_fixture.h"

namespace test {

class VolumesTest : public Release {
  protected:
    int32_t volumes(hdef *h) {
        memset(path, 'x', sizeof path);
        path[sizeof path - 1] = '\0';
        count = -1;
        return TimeFinder_volumes(h, path, &count);
    }
    // A plain device whose mirror nodes exist.
    hdef *new_mirrored_device(int32_t object_type = TF_OBJECT_RAW_DEVICE) {
        hdef *h = new_device(object_type);
        prim_mir_info *pm = add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
        tf::put(pm->bcv_raw_device, "/dev/qz/rdmp/b0");
        tf::put(pm->bcv_block_device, "/dev/qz/dmp/b0");
        pm->dev_raw_uid = 11;
        pm->dev_raw_gid = 12;
        pm->dev_blk_uid = 13;
        pm->dev_blk_gid = 14;
        write_file("/dev/qz/rdmp/b0", "");
        write_file("/dev/qz/dmp/b0", "");
        return h;
    }
    static std::string owners(const char *file) {
        struct stat status = {};
        lstat(file, &status);
        return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
    }
    // A listed volume with one pair, cloned by the clone tool.
    hdef *new_cloned_volume(const char *volume = "vola",
                            int32_t object_type = TF_OBJECT_RAW_DEVICE) {
        hdef *h = new_volume(volume, "datadg", object_type);
        add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
        return h;
    }
    // A volume whose group is brought up already.
    hdef *new_ready_volume(int32_t object_type) {
        hdef *h = new_cloned_volume("vola", object_type);
        tf::put(h->fstype, "ext4");
        DG_LIST->imported = 1;
        return h;
    }

    char path[TF_VOLPATH_SIZE] = {};
    int32_t count = -1;
};

}  // namespace test
