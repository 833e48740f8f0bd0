/*
 * The method's records: what it knows of one frozen object.
 *
 * All texts are NUL-terminated and always filled with a bounded copy that truncates. Records are
 * allocated zeroed. An object's record and its device records stay alive, reachable from DG_LIST,
 * until the library is unloaded; the framework holds the object's record as an opaque handle.
 *
 * The field names are also the vocabulary of the checkpoint text ("HDEF-" and "PMINFO-" keys).
 */
#ifndef TIMEFINDER_INCLUDE_RECORDS_H
#define TIMEFINDER_INCLUDE_RECORDS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TF_PATH_SIZE = 1024,        /* device, file and group names */
    TF_RECORD_SYMID_SIZE = 13,  /* array serial number: 12 characters and NUL */
    TF_RECORD_DEVNAME_SIZE = 5, /* array device name: 4 characters and NUL */
    TF_PRIMMIRLIST_SIZE = 2048  /* slots of primmirlist */
};

/* One standard (primary) device and the BCV that mirrors it. */
typedef struct prim_mir_info {
    char symid[TF_RECORD_SYMID_SIZE];                /* first: primmircmp sorts on it */
    char dev_sym_devname[TF_RECORD_DEVNAME_SIZE];    /* array's name of the primary */
    char dev_raw_device[TF_PATH_SIZE];               /* raw device of the primary on this host */
    char dev_block_device[TF_PATH_SIZE];             /* its block device */
    char p_dev_raw_device[TF_PATH_SIZE];             /* path under which the array knows it */
    char bcv_raw_device[TF_PATH_SIZE];               /* raw device of the BCV on this host */
    char bcv_block_device[TF_PATH_SIZE];             /* its block device */
    char bcv_pdevname[TF_PATH_SIZE];                 /* BCV as the array interface names it */
    char bcvdev_sym_devname[TF_RECORD_DEVNAME_SIZE]; /* array's name of the BCV */
    int32_t dev_raw_uid, dev_raw_gid;                /* owner of the raw device node */
    int32_t dev_blk_uid, dev_blk_gid;                /* owner of the block device node */
    char lock_file[TF_PATH_SIZE];                    /* the array's counter file */
    int32_t issplit;                                 /* flag that the counter file held */
    int32_t sync_at_end;                             /* re-establish when the operation ends */
    int32_t lock_set;                                /* this record holds the array lock */
    struct prim_mir_info *next;                      /* next device of the object */
} prim_mir_info;

/* Kinds of object (object_type). */
enum { TF_OBJECT_RAW_DEVICE = 1, TF_OBJECT_BLOCK_DEVICE = 2, TF_OBJECT_FILE_SYSTEM = 3 };

/* One frozen object. */
typedef struct hdef {
    int32_t sync_at_start;            /* 0, 1 enrol every pair, 2 full establish */
    int32_t async_resync;             /* configuration, 0 or 1 */
    int32_t backup_copy;              /* configuration */
    int32_t is_vol;                   /* a volume of the volume manager */
    int32_t is_mount;                 /* the copy is mounted on mount_point */
    int32_t object_type;              /* TF_OBJECT_* */
    char mount_point[TF_PATH_SIZE];   /* the object's path as the framework named it */
    char *out_file, *err_file;        /* capture files of commands; from tempnam, owned */
    char vol_group[TF_PATH_SIZE];     /* disk group, key of the DG_LIST entry */
    char vol_name[TF_PATH_SIZE];      /* volume in the group */
    char clone_group[TF_PATH_SIZE];   /* name of the copy's disk group */
    char primary_host[TF_PATH_SIZE];  /* host of the primary devices, without its domain */
    char fstype[TF_PATH_SIZE];        /* file-system type */
    prim_mir_info *pminfo_list;       /* devices, in order of discovery; owned */
    char transfer_file[TF_PATH_SIZE]; /* file of clone information */
    int32_t is_rebuilt;               /* made by rebuild */
    int32_t is_tgt;                   /* rebuilt on an alternate backup host */
    int32_t restore;                  /* rebuilt to restore the primary */
    int32_t max_snapshots;            /* keywords "max_snapshots" and "keep_fi" */
    int32_t reserved;                 /* 0; nothing reads it */
    int32_t dgimport;                 /* the copy's disk group is imported after the split */
    int32_t keep_fi;                  /* checkpointed; a freeze leaves it 0 */
    char fs_path[TF_PATH_SIZE];       /* the source given to freeze */
    char dev_block_device[TF_PATH_SIZE];
    char dev_raw_device[TF_PATH_SIZE];
} hdef;

/* One object in a disk group's member list. */
typedef struct dg_member {
    struct hdef *h;
    struct dg_member *next;
} dg_member;

/* One disk group that objects of this process live in. */
typedef struct dg_entry {
    int32_t cloned;        /* the clone step of the checkpoint has run */
    int32_t imported;      /* the copy's group has been brought up on this host */
    int32_t thaw_count;    /* thaws so far; the one that reaches vol_count deports */
    int32_t restore_count; /* restores so far; likewise */
    int32_t vol_count;     /* members whose is_vol is set */
    char dg_name[TF_PATH_SIZE];
    struct dg_member *members; /* newest first */
    struct dg_entry *next;
} dg_entry;

/* Head of the disk groups, newest first. */
extern struct dg_entry *DG_LIST;
/*
 * The batch of pairs of one array operation and its count. It serves three batches at different
 * times: the resync-at-start queue, the split list, the resync or restore list. Entries point into
 * the objects' device lists; the table owns nothing.
 */
extern struct prim_mir_info *primmirlist[TF_PRIMMIRLIST_SIZE];
extern int32_t prim_mir_info_size;

#ifdef __cplusplus
}
#endif

#endif
