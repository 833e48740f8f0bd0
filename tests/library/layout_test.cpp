// Names, order and sizes of the records: the framework's tools and the checkpoint depend on them.
#include <gtest/gtest.h>

#include <cstddef>

#include "fim_config/qfm_fim_config.h"
#include "include/records.h"
#include "include/symapi.h"
#include "include/tessera_host.h"
#include "snap/snap.h"

extern "C" int headers_compile_as_c(void);

namespace {

TEST(Layout, the_public_headers_compile_as_c) {
    EXPECT_EQ(headers_compile_as_c(), static_cast<int>(sizeof(hdef)));
}

TEST(Layout, a_device_record_has_its_fields_in_order) {
    const size_t offsets[] = {offsetof(prim_mir_info, symid),
                              offsetof(prim_mir_info, dev_sym_devname),
                              offsetof(prim_mir_info, dev_raw_device),
                              offsetof(prim_mir_info, dev_block_device),
                              offsetof(prim_mir_info, p_dev_raw_device),
                              offsetof(prim_mir_info, bcv_raw_device),
                              offsetof(prim_mir_info, bcv_block_device),
                              offsetof(prim_mir_info, bcv_pdevname),
                              offsetof(prim_mir_info, bcvdev_sym_devname),
                              offsetof(prim_mir_info, dev_raw_uid),
                              offsetof(prim_mir_info, dev_raw_gid),
                              offsetof(prim_mir_info, dev_blk_uid),
                              offsetof(prim_mir_info, dev_blk_gid),
                              offsetof(prim_mir_info, lock_file),
                              offsetof(prim_mir_info, issplit),
                              offsetof(prim_mir_info, sync_at_end),
                              offsetof(prim_mir_info, lock_set),
                              offsetof(prim_mir_info, next),
                              sizeof(prim_mir_info)};
    const size_t expected[] = {0,    13,   18,   1042, 2066, 3090, 4114, 5138, 6162, 6168,
                               6172, 6176, 6180, 6184, 7208, 7212, 7216, 7224, 7232};
    for (size_t i = 0; i < std::size(expected); ++i) EXPECT_EQ(offsets[i], expected[i]) << i;
}

TEST(Layout, an_object_record_has_its_fields_in_order) {
    const size_t offsets[] = {offsetof(hdef, sync_at_start),
                              offsetof(hdef, async_resync),
                              offsetof(hdef, backup_copy),
                              offsetof(hdef, is_vol),
                              offsetof(hdef, is_mount),
                              offsetof(hdef, object_type),
                              offsetof(hdef, mount_point),
                              offsetof(hdef, out_file),
                              offsetof(hdef, err_file),
                              offsetof(hdef, vol_group),
                              offsetof(hdef, vol_name),
                              offsetof(hdef, clone_group),
                              offsetof(hdef, primary_host),
                              offsetof(hdef, fstype),
                              offsetof(hdef, pminfo_list),
                              offsetof(hdef, transfer_file),
                              offsetof(hdef, is_rebuilt),
                              offsetof(hdef, is_tgt),
                              offsetof(hdef, restore),
                              offsetof(hdef, max_snapshots),
                              offsetof(hdef, reserved),
                              offsetof(hdef, dgimport),
                              offsetof(hdef, keep_fi),
                              offsetof(hdef, fs_path),
                              offsetof(hdef, dev_block_device),
                              offsetof(hdef, dev_raw_device),
                              sizeof(hdef)};
    const size_t expected[] = {0,    4,    8,    12,   16,   20,   24,   1048, 1056,
                               1064, 2088, 3112, 4136, 5160, 6184, 6192, 7216, 7220,
                               7224, 7228, 7232, 7236, 7240, 7244, 8268, 9292, 10320};
    for (size_t i = 0; i < std::size(expected); ++i) EXPECT_EQ(offsets[i], expected[i]) << i;
}

TEST(Layout, a_disk_group_entry_has_its_fields_in_order) {
    EXPECT_EQ(offsetof(dg_entry, cloned), 0U);
    EXPECT_EQ(offsetof(dg_entry, imported), 4U);
    EXPECT_EQ(offsetof(dg_entry, thaw_count), 8U);
    EXPECT_EQ(offsetof(dg_entry, restore_count), 12U);
    EXPECT_EQ(offsetof(dg_entry, vol_count), 16U);
    EXPECT_EQ(offsetof(dg_entry, dg_name), 20U);
    EXPECT_EQ(offsetof(dg_entry, members), 1048U);
    EXPECT_EQ(offsetof(dg_entry, next), 1056U);
    EXPECT_EQ(offsetof(dg_member, h), 0U);
    EXPECT_EQ(offsetof(dg_member, next), 8U);
}

TEST(Layout, the_other_records_that_cross_a_boundary_have_their_sizes) {
    EXPECT_EQ(sizeof(SymInitOptions), 64U);
    EXPECT_EQ(offsetof(SymBcvInfo, bcv_pair_state), 192U);
    EXPECT_EQ(sizeof(SymBcvInfo), 200U);
    EXPECT_EQ(offsetof(SymDevice, pdevname), 109U);
    EXPECT_EQ(offsetof(SymDevice, bcv_count), 288U);
    EXPECT_EQ(sizeof(Q_sys_cmd_exec_options), 12U);
    EXPECT_EQ(sizeof(qfm_fcp_options), 24U);
    EXPECT_EQ(offsetof(FS_LOCK_REC, type), 1024U);
    EXPECT_EQ(offsetof(FS_LOCK_REC, state), 1280U);
    EXPECT_EQ(offsetof(FS_LOCK_REC, fd), 1284U);
    EXPECT_EQ(offsetof(FS_LOCK_REC, next), 1288U);
}

}  // namespace
