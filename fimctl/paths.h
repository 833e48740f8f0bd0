// The fixed paths that fimctl knows.
#pragma once

namespace fimctl::path {

inline constexpr char method_library[] = "/usr/quill/tessera/lib/libtimefinder_fim.so";
inline constexpr char array_library[] = "/usr/symcli/shlib/libsymapi.so";
inline constexpr char array_database[] = "/var/symapi/db/symapi_db.bin";
inline constexpr char configuration_file[] = "/etc/fimctl/fimctl.toml";
inline constexpr char hook_directory[] = "/etc/fimctl/hooks.d";
inline constexpr char state_directory[] = "/var/lib/fimctl";
// Gone with a reboot: the locks of the commands that work on snapshots.
inline constexpr char runtime_directory[] = "/run/fimctl";
inline constexpr char mount_table[] = "/proc/self/mountinfo";

// Below the state directory.
inline constexpr char catalogue_file[] = "catalogue.db";
inline constexpr char mount_folder[] = "mnt";
inline constexpr char scratch_folder[] = "tmp";
inline constexpr char frozen_mark[] = "frozen";  // below a snapshot's folder there

// Where the method and the array library write while a snapshot is cut.
inline constexpr char array_state[] = "/var/symapi/db";
inline constexpr char host_lock_folder[] = "/usr/quill/tessera/online_util/fi_cntl";
inline constexpr char host_lock_file[] =
    "/usr/quill/tessera/online_util/fi_cntl/__LOCKFILE__TSR_ARRAY";
inline constexpr char counter_folder[] = "/usr/quill/tessera/online_util/db_cntl";

inline constexpr char array_root[] = "/var/symapi";
inline constexpr char method_mount_table[] = "/etc/mtab";

// The host product, and what the method runs.
inline constexpr char product_root[] = "/usr/quill/tessera";
inline constexpr char device_information_tool[] = "/usr/quill/tessera/bin/tqtpcinfo";
inline constexpr char clone_tool[] = "/usr/quill/tessera/bin/tqdgclone";
inline constexpr char clone_script[] = "/usr/quill/tessera/bin/tqdgclone_script";
inline constexpr char disk_group_tool[] = "/usr/sbin/qzdg";
inline constexpr char disk_tool[] = "/usr/sbin/qzdisk";
inline constexpr char daemon_tool[] = "/usr/sbin/qzdctl";
inline constexpr char volume_tool[] = "/usr/sbin/qzvol";
inline constexpr char volume_set_tool[] = "/usr/sbin/qzvset";

// Volumes of the volume manager are block devices below this folder, raw devices below that one.
inline constexpr char volume_folder[] = "/dev/qz/dsk/";
inline constexpr char raw_volume_folder[] = "/dev/qz/rdsk/";

}  // namespace fimctl::path
