/*
 * The host product's base library, as far as the method uses it ("libtessera_host.so").
 *
 * The method links to these functions; host/ is this project's implementation of them, a shared
 * library of its own, so that the product's own can stand in its place.
 */
#ifndef TIMEFINDER_INCLUDE_TESSERA_HOST_H
#define TIMEFINDER_INCLUDE_TESSERA_HOST_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Looks a message up by its identifier in the catalogue of each locale, formats it with the
 * arguments (the English format stands in where the catalogue has none) and writes it into the
 * buffer that follows the locale's size, bounded by that size and always terminated.
 * Returns 0.
 */
int qlgetmsg(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
             const char *lc_logging, size_t logmsg_size, char *logmsg, const char *format, ...)
    __attribute__((format(printf, 8, 9)));
/* The same, with the text of the system error errnum where the format says "%%s". */
int qlgetmsg_errno(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                   const char *lc_logging, size_t logmsg_size, char *logmsg, int errnum,
                   const char *format, ...) __attribute__((format(printf, 9, 10)));

/* Bounded copy and append with the BSD meaning: always terminated when size is not 0, the result is
 * the length that the full text would have. */
size_t Q_strlcpy(char *dst, const char *src, size_t size);
size_t Q_strlcat(char *dst, const char *src, size_t size);
/* Bounded formatting: the full length, or a negative value on error. */
int Q_snprintf(char *dst, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int Q_vsnprintf(char *dst, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));
int Q_sscanf(const char *text, const char *format, ...) __attribute__((format(scanf, 2, 3)));

/* Where a command's output goes, and how it ended. A descriptor of -1 means the null device. The
 * descriptors belong to the caller. exit_status is the program's exit status (127 when it could not
 * be started, 128 and the signal's number when a signal ended it). */
typedef struct Q_sys_cmd_exec_options {
    int out_fd, err_fd;
    int exit_status;
} Q_sys_cmd_exec_options;

/* Sets the record to -1, -1, 0. */
void Q_sys_cmd_exec_options_init(Q_sys_cmd_exec_options *options);

/*
 * Mount, unmount and check with the host's own programs. flags is 0. Each returns 0 on success and
 * non-zero on failure, and stores the program's exit status.
 * Q_mount of a device that is already mounted on that very directory succeeds and changes nothing.
 * Q_fsck takes exit status 0 (clean) and 1 (repaired) as success; a mounted device fails.
 */
int Q_mount(const char *block, const char *dir, const char *fstype, int flags,
            Q_sys_cmd_exec_options *options);
int Q_umount(const char *dir, int flags, Q_sys_cmd_exec_options *options);
int Q_fsck(const char *device, const char *fstype, int flags, Q_sys_cmd_exec_options *options);

/* The host's own name; 0 on success. */
int tq_gethostname(char *name, size_t size);
/* Non-zero when the name or address is this host's. */
int qnet_is_local_host(const char *name);
/* One entry of the configuration under the product root ("ROOT/tq.conf"): 0 when it is present, its
 * value then in value, cut to size. */
int read_AD_HOC_config_entry(const char *root, const char *key, char *value, size_t size);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
