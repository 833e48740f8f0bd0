/*
 * The entry points of the snapshot method ("libtimefinder_fim.so"), as the backup framework calls
 * them.
 *
 * All calls are synchronous and must come from one thread at a time. Each returns 0 for success and
 * another status (11 in nearly every case) for a failure; before it returns a failure it stores an
 * error number through the pointer given to TimeFinder_init, and writes the message into both of
 * the buffers given there. docs/messages.md lists the numbers and the messages.
 *
 * Order: TimeFinder_init first; TimeFinder_set_locale and TimeFinder_set_logf before any snapshot
 * work; for each object TimeFinder_freeze, for the process TimeFinder_freeze_commit,
 * TimeFinder_ckpt to keep the state; in a later process TimeFinder_rebuild, TimeFinder_volumes,
 * TimeFinder_thaw, TimeFinder_thaw_commit.
 */
#ifndef TIMEFINDER_INCLUDE_TIMEFINDER_H
#define TIMEFINDER_INCLUDE_TIMEFINDER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct hdef hdef; /* opaque to the framework; lives until the library is unloaded */
typedef void (*tf_log_function)(const char *line);

/* Control codes of TimeFinder_ctl. 1 to 3 are accepted and do nothing. */
enum { TF_CTL_RESYNC_AT_START = 4 };
/* Flags of TimeFinder_freeze. */
enum { TF_FREEZE_WAIT = 1, TF_FREEZE_NO_WAIT = 3 };
/* Sizes of the buffers that the framework owns. */
enum { TF_MESSAGE_SIZE = 2048, TF_VOLPATH_SIZE = 1024 };

/* Stores where failures are reported: the error number and two buffers of TF_MESSAGE_SIZE bytes,
 * which must outlive the library's use. A null pointer is never written through. Returns 0. */
int32_t TimeFinder_init(int32_t *errnop, char *logmsg_buffer, char *errmsg_buffer);
/* Writes the 32-bit values 44, 1 and 0 at the byte offsets 0, 32 and 36 of the framework's
 * method-description record and leaves the rest of it alone. Returns 0. */
int32_t TimeFinder_query(void *method_description);
/* The locales of the two message buffers; null stands for "C", a name is cut to 255 characters.
 * Always 0. */
int32_t TimeFinder_set_locale(const char *messages_locale, const char *logging_locale);
/* The log sink and its level: below 0 nothing, 0 failures and progress, 1 commands, 2 traces,
 * 5 the configuration parser's details. A null sink switches logging off. Always 0. */
int32_t TimeFinder_set_logf(tf_log_function sink, int32_t level);

/*
 * Prepares one object for the split.
 * config: keyword=value pairs separated by commas, at most 1024 characters, may be null.
 * source: a path on a file system, a raw device or a block device; null is the empty path.
 * fifs: the path kept as the object's mount point. nvols: set to 0. flag: TF_FREEZE_WAIT or
 * TF_FREEZE_NO_WAIT. *handle receives the record; a failed freeze that still returns one holds
 * array locks and has to be rolled back with thaw and thaw commit on that handle. Except after
 * QfMCmn0020N, no memory for the record's device: that record is bare, holds nothing and is not
 * counted, so that its thaw commit would pass for another object's, perhaps the last one's, whose
 * mirrors are established then. Objects of TF_FREEZE_NO_WAIT are not counted either.
 */
int32_t TimeFinder_freeze(const char *config, const char *source, const char *fifs, void *unused,
                          int32_t *nvols, int32_t flag, hdef **handle);
/* Splits the pairs of every object that this process has frozen; further calls return 0. */
int32_t TimeFinder_freeze_commit(hdef *fih);
/* cmd TF_CTL_RESYNC_AT_START establishes the pairs that the freezes queued and waits for them. */
int32_t TimeFinder_ctl(hdef *fih, int32_t cmd);
/* Unmounts the copy and gives its disk group back. */
int32_t TimeFinder_thaw(hdef *fih);
/* Re-establishes the mirrors, or restores the primaries from them, with the last object's call. */
int32_t TimeFinder_thaw_commit(hdef *fih);
/* The object's state as key=value lines. *text comes from malloc; the framework frees it. */
int32_t TimeFinder_ckpt(hdef *fih, char **text);
/* Builds a record from a checkpoint text, which is modified. *fih is set as soon as the record
 * exists, so most failures leave a partly built one. */
int32_t TimeFinder_rebuild(hdef **fih, char *text);
/* Brings the copy up and writes the path to read into volpath (TF_VOLPATH_SIZE bytes). *nvols is 1
 * for a volume, 0 otherwise. */
int32_t TimeFinder_volumes(hdef *fih, char *volpath, int32_t *nvols);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
