// Host device names, mount points and file-system quiesce, with result codes and diagnostics of
// their own.
//
// Every routine reports by its result and by a line in err_msg, which print_err hands to the sink
// (sn_set_errf); some lines are plain diagnostics that are written on success too. No routine ends
// the process but statdev, for a programming error.
//
// Not re-entrant: static result buffers, err_msg, the frozen file system and the lock list are
// process-wide; call the routines from one thread at a time.
//
// Unless said otherwise: paths and output pointers are not null; result texts handed out through
// char ** point into static buffers of the routine, are overwritten by its next call and are not
// freed; an output that a look-up has no answer for is null.
#ifndef TIMEFINDER_SNAP_SNAP_H
#define TIMEFINDER_SNAP_SNAP_H

#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Result codes of the look-up routines. sn_msg has texts for some of them.
enum {
    SN_OK = 0,  // also: the mount table was read and nothing matched; the outputs are null
    SN_NULL_ARGUMENT = 1,
    SN_NOT_ABSOLUTE = 2,  // a path without a leading "/"
    SN_NOT_A_DISK = 6,
    SN_NO_MEMORY = 12,
    SN_STAT_FAILED = 13,
    SN_NO_MOUNT = 14,      // no mount table; for find_mnt also: nothing matched
    SN_NOT_IN_A_SET = -1,  // rawtofs: neither mounted nor in a mounted volume set
};

// The raw (character) device of a block device. Copies block into out, size bytes, cut to that
// size; "/dev/qz/dsk..." becomes "/dev/qz/rdsk...", "/dev/qz/dmp..." "/dev/qz/rdmp...", any other
// path stays as it is. Returns out.
char *blocktoraw(const char *block, char *out, size_t size);
// The block device of a raw device, the other way round, as a new text from malloc that the caller
// frees. Returns null, after a diagnostic, when there is no memory.
char *raw_to_block(const char *raw);

// Look-ups in "/etc/mtab". device and block receive at most 1023 characters of the entry's device,
// dir of its directory, type 63 of its file-system type.

// The mount with the longest directory that begins the (resolved) path. Returns SN_OK or
// SN_NO_MOUNT.
int fstomp(const char *path, char **device, char **type);
// The first mount whose directory is the (resolved) path. Returns SN_OK or SN_NO_MOUNT.
int fstoblock(const char *path, char **block, char **type);
// The same, with the raw device. Returns SN_OK or SN_NO_MOUNT.
int fstoraw(const char *path, char **raw, char **type);
// The first mount of the raw device's block device. Returns SN_OK or SN_NO_MOUNT.
int find_mnt(const char *raw, char **dir, char **type);
// The same; a raw device that is not mounted itself is looked for in the volume sets of its disk
// group (by "/usr/sbin/qzvset"), and the set's mount is the answer. The outputs are find_mnt's
// buffers. Returns SN_OK, SN_NO_MOUNT (the set is not mounted) or SN_NOT_IN_A_SET.
int rawtofs(const char *raw, char **dir, char **type);

// Classifies a path and makes it a raw device. *device is replaced: for a block device the raw name
// is written into the caller's buffer, cut to the old length (a name that grew loses its last
// character); for a file or directory *device becomes a static buffer of fstoraw. *status receives
// the stat of the path, for a file or directory of the raw device. *mount_dir receives the mount
// directory or null; for a file or directory the path as given, a pointer to the caller's text.
// *is_ufs or *is_qzfs is set to 1 after the type and never cleared. A null *device or status
// aborts. Returns SN_OK, SN_NOT_ABSOLUTE, SN_NOT_A_DISK or SN_STAT_FAILED.
int statdev(char **device, struct stat *status, char **mount_dir, int *is_ufs, int *is_qzfs);

// Describes a path. *kind: the constant "raw_device", "block_device" or "regular" (left alone when
// the path is refused). Of a device *raw and *block are its two names, the given one being the
// caller's pointer; *mount is its mount directory. Of anything else *mount is the mount's device
// name, *raw and *block belong to a mount on that very name. *block is a new text from malloc that
// the caller frees, except for a block device. *type is the file-system type. What is not known is
// null.
// Returns SN_OK, SN_NULL_ARGUMENT (path is null), SN_NOT_ABSOLUTE, SN_NOT_A_DISK, SN_STAT_FAILED or
// SN_NO_MOUNT.
int fsdevinfo(const char *path, char **kind, char **raw, char **block, char **mount, char **type);

// Receives a diagnostic line in the manner of write(2): descriptor, bytes, number of bytes.
typedef int (*sn_err_function)(int fd, const char *text, int length);
// Sets where diagnostics go. Nothing is handed out while the sink is null or fd negative. With a
// newline flag other than 0 each line ends in a newline. Lines are at most 2047 bytes.
void sn_set_errf(sn_err_function sink, int32_t fd, int32_t newline);
// The constant text of a code, or null for a code without one.
const char *sn_msg(int code);

// Stops writes to the file system at path. type "ufs": by "/usr/sbin/lockfs"; returns 0, also when
// the command ran and failed. type "qzfs": returns the descriptor that unlock_fs needs; the file
// system thaws by itself after 300 seconds. Returns -1 on failure or for any other type.
int lock_fs(const char *path, const char *type);
// Resumes writes. fd is the descriptor from lock_fs ("qzfs" only); it is closed. Returns 0 or -1.
int unlock_fs(const char *path, const char *type, int fd);
// Stops writes to the one file system that this pair of routines handles at a time, after the
// flag that is set (is_ufs first; neither: nothing happens). A frozen qzfs thaws by itself after 5
// seconds; freezing a second one forgets the first. Returns 0, a negative status when the ufs
// command could not be run, or the system's error number for qzfs.
int locksnap(const char *path, int is_ufs, int is_qzfs);
// Resumes writes. Returns 0 (always for ufs, and when no qzfs is frozen) or the system's error
// number.
int unlocksnap(const char *path, int is_ufs, int is_qzfs);

// One file system to be locked.
struct FS_LOCK_REC {
    char name[1024];
    char type[256];
    int32_t state;  // made 0
    int32_t fd;     // made -1
    struct FS_LOCK_REC *next;
};
// Whether a name (exactly so) is in the lock list: 1 or 0. Null is not, after a diagnostic.
int check_lock_list(const char *name);
// Appends a file system of type "ufs" or "qzfs" to the lock list, also when it is there already,
// and hands out the list's first record and its length. Records live until the library is unloaded.
// Returns 0, SN_NULL_ARGUMENT (name or type is null, or another type) or SN_NO_MEMORY; the outputs
// are then left alone.
int add_to_lock_list(const char *name, const char *type, struct FS_LOCK_REC **first,
                     int32_t *count);

// The last message of any routine of this module, cut to 2047 characters.
extern char err_msg[2048];
// The texts of sn_msg, in the order of their codes, closed by code 0.
extern const struct sn_text {
    int32_t code;
    const char *text;
} snmsg[];
// The lock list: its ends, the record added most recently, and its length.
extern struct FS_LOCK_REC *first_fs_locklist_rec, *last_fs_locklist_rec, *fs_locklist_rec;
extern int32_t num_fs_lock_entries;

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
