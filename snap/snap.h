// Host device names, mount points and file-system quiesce, with result codes and diagnostics of
// their own. Not re-entrant: static result buffers and one message buffer serve the module.
#ifndef TIMEFINDER_SNAP_SNAP_H
#define TIMEFINDER_SNAP_SNAP_H

#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

char *blocktoraw(const char *block, char *out, size_t size);
char *raw_to_block(const char *raw);
int fstomp(const char *path, char **device, char **type);
int fstoblock(const char *path, char **block, char **type);
int fstoraw(const char *path, char **raw, char **type);
int find_mnt(const char *raw, char **dir, char **type);
int rawtofs(const char *raw, char **dir, char **type);
int statdev(char **device, struct stat *status, char **mount_dir, int *is_ufs, int *is_qzfs);
int fsdevinfo(const char *path, char **kind, char **raw, char **block, char **mount, char **type);

typedef int (*sn_err_function)(int fd, const char *text, int length);
void sn_set_errf(sn_err_function sink, int32_t fd, int32_t newline);
const char *sn_msg(int code);
int lock_fs(const char *path, const char *type);
int unlock_fs(const char *path, const char *type, int fd);
int locksnap(const char *path, int is_ufs, int is_qzfs);
int unlocksnap(const char *path, int is_ufs, int is_qzfs);
int check_lock_list(const char *name);

struct FS_LOCK_REC {
    char name[1024];
    char type[256];
    int32_t state;
    int32_t fd;
    struct FS_LOCK_REC *next;
};
int add_to_lock_list(const char *name, const char *type, struct FS_LOCK_REC **first,
                     int32_t *count);

extern char err_msg[2048];
extern const struct sn_text {
    int32_t code;
    const char *text;
} snmsg[];
extern struct FS_LOCK_REC *first_fs_locklist_rec, *last_fs_locklist_rec, *fs_locklist_rec;
extern int32_t num_fs_lock_entries;

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
