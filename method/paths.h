// Every fixed path of the method. They are part of its contract with the host product, the array
// software and the operators, so nothing can move them: no variable, no prefix.
#pragma once

namespace tf::path {

inline constexpr char symapi_library[] = "/usr/symcli/shlib/libsymapi.so";
inline constexpr char symapi_database[] = "/var/symapi/db/symapi_db.bin";
inline constexpr char symapi_database_directory[] = "/var/symapi/db";

inline constexpr char mount_table[] = "/etc/mtab";
inline constexpr char null_device[] = "/dev/null";

inline constexpr char product_root[] = "/usr/quill/tessera";
inline constexpr char clone_tool[] = "/usr/quill/tessera/bin/tqdgclone";
inline constexpr char clone_script[] = "/usr/quill/tessera/bin/tqdgclone_script";
inline constexpr char device_information_tool[] = "/usr/quill/tessera/bin/tqtpcinfo";
inline constexpr char host_lock_file[] =
    "/usr/quill/tessera/online_util/fi_cntl/__LOCKFILE__TSR_ARRAY";
inline constexpr char counter_file_format[] =
    "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_%s";

inline constexpr char disk_group_tool[] = "/usr/sbin/qzdg";
inline constexpr char disk_tool[] = "/usr/sbin/qzdisk";
inline constexpr char daemon_tool[] = "/usr/sbin/qzdctl";
inline constexpr char volume_tool[] = "/usr/sbin/qzvol";

// What stands for a BCV that this host does not see.
inline constexpr char unseen_bcv[] = "/dev/sdX";
inline constexpr char unseen_bcv_after_rebuild[] = "/dev/rdsk/cXtXdX";

// How the names of native and of multipath disks are told.
inline constexpr char native_disk[] = "/dev/sd";
inline constexpr char multipath_disk[] = "/dev/emcpower";
inline constexpr char raw_multipath_disk[] = "/dev/qz/rdmp/";

// Volumes of the volume manager: disk group and volume follow.
inline constexpr char volume_prefix[] = "/dev/qz/dsk/";
inline constexpr unsigned long volume_prefix_length = sizeof volume_prefix - 1;

// A volume of the copy: clone group and volume.
inline constexpr char raw_volume_format[] = "/dev/qz/rdsk/%s/%s";
inline constexpr char block_volume_format[] = "/dev/qz/dsk/%s/%s";

// The disk group of an object that is no volume.
inline constexpr char no_volume_group[] = "__NOT_VOL__GRP__";

}  // namespace tf::path
