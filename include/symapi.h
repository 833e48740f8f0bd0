/*
 * The array interface: the functions and records of the Symmetrix API library as this project
 * binds them.
 *
 * The library ("libsymapi.so") is opened at run time; nothing links against it. The records are
 * plain values owned by the caller: a show call fills the whole record, nothing in it points into
 * the library, so nothing has to be freed and a later call cannot pull it away.
 *
 * Every function returns 0 on success and an array error code otherwise, except where its comment
 * says something else. SymPerror turns a code into text.
 */
#ifndef TIMEFINDER_INCLUDE_SYMAPI_H
#define TIMEFINDER_INCLUDE_SYMAPI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SYM_SYMID_SIZE = 13,   /* array serial number: 12 characters and NUL */
    SYM_DEVNAME_SIZE = 16, /* array device name: 4 characters and NUL in use */
    SYM_GROUP_SIZE = 64,   /* device group or logical device name */
    SYM_PDEV_SIZE = 48,    /* host device path */
    SYM_MAX_BCVS = 16,     /* BCV entries of one standard device */
    SYM_MAX_PORTS = 16     /* alternate host paths of one device */
};

/* Answers of a control call while the array still finishes an earlier split in the background:
 * the same call is repeated until another answer comes. */
enum { SYM_SPLIT_IN_BACKGROUND = 1012, SYM_SPLIT_IN_BACKGROUND_TOO = 1013 };

/* The options version that SymInitV expects in the first field of its options record. */
enum { SYM_INIT_OPTIONS_VERSION = 106 };

/* One BCV that the array associates with a standard device. */
typedef struct SymBcvInfo {
    char dev_serial_id[SYM_SYMID_SIZE];        /* array of the standard device */
    char dev_sym_devname[SYM_DEVNAME_SIZE];    /* standard device */
    char dev_dgname[SYM_GROUP_SIZE];           /* group of the standard device */
    char bcvdev_serial_id[SYM_SYMID_SIZE];     /* array of the BCV */
    char bcvdev_sym_devname[SYM_DEVNAME_SIZE]; /* BCV */
    char bcvdev_dgname[SYM_GROUP_SIZE];        /* group of the BCV */
    long bcv_pair_state;                       /* 1 synchronising, 2 synchronised, 3 splitting,
                                                  5 split, 7 restoring, 8 restored */
} SymBcvInfo;

/* One device of an array as one host sees it. */
typedef struct SymDevice {
    char vendor_id[16], product_id[32], product_rev[16];
    char symid[SYM_SYMID_SIZE];
    char device_serial_id[SYM_DEVNAME_SIZE];
    char sym_devname[SYM_DEVNAME_SIZE];
    char pdevname[SYM_PDEV_SIZE]; /* host path; "" when this host does not see it */
    char dgname[SYM_GROUP_SIZE], ldevname[SYM_GROUP_SIZE];
    int32_t bcv_count;
    SymBcvInfo bcvs[SYM_MAX_BCVS]; /* in the array's order */
    int32_t port_count;
    char ports[SYM_MAX_PORTS][SYM_PDEV_SIZE]; /* alternate host paths */
} SymDevice;

typedef struct SymInitOptions {
    int32_t version; /* SYM_INIT_OPTIONS_VERSION */
    int32_t reserved[15];
} SymInitOptions;

/* Opens a session on the host's array database and stores its handle in *session.
 * mode 4 creates the database, 3 and 0 use it; options may be null; api_version is the number that
 * SymApiVersion reported. */
int SymInitV(const char *db_file, int mode, int32_t *session, SymInitOptions *options,
             uint32_t api_version);
/* Ends a session. flags is 0. */
int SymExit(int32_t session, int flags);
/* Asks every array that this host reaches for its devices and writes the host's database. */
int SymDiscover(int32_t session, int flags);
/* The release: upper 16 bits of *number are the version (0x0500 is 5.0), the lower the sub-level.
 * The texts belong to the library. */
int SymApiVersion(uint32_t *number, const char **text);
int SymApiPatch(const char **text);
/* The text of a code, and its symbolic name; never null. The text belongs to the library. */
const char *SymPerror(int32_t session, int code);
const char *SymErrorSymbol(int code);
int SymPrefsSet(int32_t session, int preference, int value);
/* A device by its host path, or by array and device name. The whole record is written on success.
 */
int SymPdevShow(int32_t session, const char *pdevname, SymDevice *device);
int SymDevShow(int32_t session, const char *symid, const char *sym_devname, SymDevice *device);
/* Refreshes what the database knows of a device. */
int SymPdevSync(int32_t session, const char *pdevname, int scope);
int SymDevSync(int32_t session, const char *symid, const char *sym_devname, int scope, int flags);
/* Controls BCV pairs. action: 1 full establish, 2 split, 3 incremental establish, 5 restore. */
int SymLdevBcvControl(int32_t session, const char *dgname, const char *ldevname, int action,
                      int options);
int SymDevBcvControl(int32_t session, const char *symid, const char *sym_devname,
                     const char *bcv_sym_devname, int action, int options);
/* One call for many pairs of one array: devnames and bcv_devnames hold count names each, closed by
 * a null slot. */
int SymDevListBcvControl(int32_t session, const char *symid, int count, const char *const *devnames,
                         const char *const *bcv_devnames, int action, int options, int flags);
int SymDgBcvControl(int32_t session, const char *dgname, int action, int options);
int SymDgShow(int32_t session, const char *dgname, void *group);
int SymSync(int32_t session, int scope);
int SymFree(void *block);
int SymList(int32_t session, void **list);
int SymPdevList(int32_t session, void **list);
int SymBcvPdevList(int32_t session, void **list);
int SymCommit(int32_t session);
int SymInquiry(int32_t session);
int SymPing(int32_t session);
int SymStat(int32_t session);

#ifdef __cplusplus
}
#endif

#endif
