/*
 * fmon.h: the monitor core. One process-wide object, `fmon`, holds what the monitor knows: the client instances with
 * their watches and queues, the event table, the directory cache and the watches that wait for their path. It reaches
 * the operating system only through the method table `fmon_method`.
 *
 * Nothing here locks: every call is made under the monitor lock of the plug-in shell (fmon_shell.h), by the monitor
 * thread or by a client's. Result codes are those of orx_fmon.h.
 *
 * Sources: fmon.cpp (start, stop, instances), fmon_watch.cpp, fmon_wildcard.cpp and fmon_tbd.cpp (watch registry),
 * fmon_spare.cpp (directories that watches do not reach), fmon_global.cpp (system-wide watches), fmon_run.cpp
 * (descriptors, run step, event accessors), fmon_dump.cpp.
 */
#ifndef FMON_FMON_H
#define FMON_FMON_H

#include <cstdint>

#include "dcache.h"
#include "orx_fmon.h"

extern "C" {

struct dentry;
struct event;
struct fmon;
struct watch;
struct fs_root;
struct spared;

/* Internal watch flag: served by the source of whole file systems, and offered no event of another one. */
#define FMON_LINUX_FS 0x200000u

/* A delivery entry: one event record in one instance's queue. */
struct event_entry {
    list_head link;
    struct event *ev;
};

/* A client instance; an empty name marks a free slot. */
struct instance {
    char name[16];         /* at most 15 bytes count */
    uint32_t global_mask;  /* kinds wanted from the whole system */
    list_head watches;     /* of struct watch, through inst_link */
    list_head events;      /* of struct event_entry, oldest first */
    struct spared *spared; /* directories that its recursive watches do not reach; owned */
};

/*
 * A watch. Attached: `dentry` set, `link` in the dentry's list. Waiting: `link` in the monitor's `tbd` list. Otherwise
 * unattached: its directory vanished. Watches belong to their instance's list and are freed by fmon_del_watch,
 * fmon_destroy_instance, watch_out_service (dynamic ones) and a refused add; never by the cache or the backend.
 */
struct watch {
    uint32_t mask, flags;
    uint16_t instance, max_depth;
    int32_t max_subdirs;
    char *path; /* resolved, owned */
    struct dentry *dentry;
    list_head inst_link, link;
    struct watch *parent;        /* the pattern that made a dynamic watch */
    uint32_t fan_mask, ino_mask; /* the backend's split of `mask` */
    struct fs_root *fs;          /* the backend's; null: not served by the source of whole file systems */
};

/* What the core and the backend keep in a dentry's owner area. */
struct dentry_owner {
    list_head watches; /* of struct watch, through link */
    uint64_t ino;      /* inode number at the time of the watch */
    int32_t wd;        /* inotify watch descriptor, -1: none */
    uint32_t dev;      /* with `ino`, while the dentry is in the index of inodes: in the kernel's form */
};

/* A dentry's owner_bits. */
enum {
    DENTRY_FAN_MARK = 0x1, /* carries a fanotify mark of its own */
    DENTRY_INDEXED = 0x2,  /* is in the index of inodes (linux/inode_index.h) */
    DENTRY_FILE = 0x4,     /* stands for a watched file */
    DENTRY_COUNTED = 0x8   /* is among the marked directories */
};

/* The keys of the source of whole file systems (linux/fs/fs_source.h). */
struct fmon_fs_keys {
    uint32_t events;      /* 0: the source is not used */
    uint32_t directories; /* in its table */
    uint32_t memory_kib;  /* of what waits */
    uint32_t queue;       /* not 0: the kernel's queue has its limit */
    uint32_t rest_ms;     /* of its reader, while records come */
    uint32_t ignored;     /* directories outside that the kernel may be asked to report nothing of */
};

/* What a source knows of its next event beside the arguments of event_process(), which takes it. */
struct fmon_raw {
    uint32_t dir;  /* FMON_DIR_* */
    uint64_t move; /* as in fmon_event_details */
};

struct fmon {
    uint32_t inited;
    uint32_t inst_mask; /* live instances */
    struct instance instances[FMON_MAX_INSTANCES];
    int32_t max_events, event_count, hash_size;
    uint32_t event_mask; /* instances whose queue is not known to be empty */
    hlink **hash;
    struct dcache dcache;
    uint32_t tbd_last, tbd_interval; /* ms */
    list_head tbd;
    uint32_t global_instance_mask, global_event_mask;

    /* Not 0: where the established behaviour lets others blind, freeze or deceive the monitor, it does otherwise. Set
     * before the start and by nobody else. */
    uint32_t hardened;
    struct fmon_fs_keys fs_keys; /* set before the start, too */
    int32_t fs_fd;               /* the source_fd of its events; 0: none */
    uint32_t fs_global;          /* not 0: its events are for the whole system, too */
    struct fmon_loss_counts
        lost;             /* since the start; what the backend and the probe library count is added on request */
    list_head records;    /* those of the event table, of struct event_record, oldest first */
    uint64_t released;    /* held-back records handed on early */
    char lost_path[1024]; /* as in fmon_status */
    struct fmon_raw raw;  /* of the next event */
    uint32_t spared;      /* directories, of all instances: 0 saves the look */
};

/* The backend's callback for each raw event: event_process. `source_fd` 0 means a kernel probe. */
typedef int (*fmon_event_cb)(struct fmon *, struct dentry *, const char *name, uint32_t mask, uint32_t pid,
                             int source_fd, const char *mount_id);

/* The backend. Slots marked optional may be null. */
struct fmon_method_t {
    const char *name;
    int (*pre_init)(void); /* not called by the core */
    int (*init)(struct fmon *);
    void (*deinit)(void);
    int (*check_watch)(struct watch *);              /* optional */
    int (*add_watch)(struct fmon *, struct watch *); /* 0: attached; FMON_ENOENT: the path is not there */
    int (*del_watch)(struct fmon *, struct watch *);
    int (*get_selectable_fds)(int32_t **fds, uint32_t *timeout_ms);
    int (*read_event)(struct fmon *, uint32_t now_ms, fmon_event_cb);
    void (*dump)(uint32_t type, void *arg); /* optional */
    int (*rate_ctrl)(uint32_t limit, uint32_t interval, uint32_t log);
    int (*punish_unexpected_watch)(int fd, char *path); /* optional */
    int (*add_global)(uint32_t mask);
    int (*del_global)(uint32_t mask);
    int (*update_global)(int id);
};

extern struct fmon fmon;                 /* hidden */
extern struct fmon_method_t fmon_method; /* hidden; filled by the backend */

/* ---- start and stop ---- */

/* Starts the core: max_events >= 1, max_dentries 1..2097152, tbd_interval >= 1000 ms. FMON_EINVAL, FMON_EEXIST when
 * started, FMON_ENOMEM or the backend's code; a failed start leaves nothing behind. */
FMON_API int fmon_init(int32_t max_events, int32_t max_dentries, int32_t tbd_interval);

/* Stops the core. Instances, their watches and their queued events survive; their place in the tree does not. */
FMON_API void fmon_deinit(void);

/* The constructor of every dentry's owner area: no watches, no watch descriptor. */
FMON_API void dentry_init(struct dentry *);

/* ---- instances ---- */

/* Takes the lowest free slot and returns its id. The stored 15 bytes are compared with the whole name given, so a
 * longer name is never found to exist. */
FMON_API int fmon_create_instance(const char *name);

/* Frees an instance's watches and queue entries, and the records nobody else holds. */
FMON_API int fmon_destroy_instance(int id);

/* ---- watches ---- */

FMON_API int fmon_add_watch(int instance, const char *path, uint32_t mask, uint32_t flags, uint32_t max_depth,
                            uint32_t max_subdirs);
FMON_API int fmon_del_watch(int instance, const char *path);

/* See _orx_fmon_spare. (Hidden, as are those that follow.) */
int fmon_spare(int instance, const char *path);
void fmon_forget_spared(struct instance *);

/* Whether the watch's instance spares the dentry, or with a name what has this name in it, or a directory above. */
bool fmon_spares(const struct watch *, struct dentry *, const char *name);

/* Whether any instance spares this very dentry. */
bool fmon_any_spares(struct dentry *);

/* Whether the watch gets no event of this path, since it lies below what its instance spares. */
bool fmon_spares_event(const struct watch *, const char *path);

/* For the backend: `watch` has lost its dentry (unlinked, dentry null). May free it. Not for mount watches. */
FMON_API void watch_out_service(struct fmon *, struct watch *);

/* Retries the waiting watches once; run by fmon_run. (Hidden.) */
void fmon_tbd_pass(void);

/* ---- system-wide watches ---- */

FMON_API int fmon_add_global_watch(int id, uint32_t mask);
FMON_API int fmon_del_global_watch(int id, uint32_t mask);
FMON_API int fmon_update_global_watch(int id);

/* ---- run step and event accessors ----
 * The accessors check neither the id nor the start: callers pass live ids. */

/* Number of leading entries of *fds to scan, 0 while the event table is full; may lower *timeout_ms. */
FMON_API int fmon_get_selectable_fds(int32_t **fds, uint32_t *timeout_ms);

/* One step: retries waiting watches when they are due, then lets the backend read the descriptors marked -1. */
FMON_API int fmon_run(uint32_t now_ms);

FMON_API int fmon_has_event(int id);
FMON_API uint32_t *fmon_get_event_mask(void);   /* live set, bit i: instance i may have events */
FMON_API struct event *fmon_peek_event(int id); /* null when empty */
FMON_API struct event *fmon_read_event(int id); /* takes it off the queue; free with fmon_free_event */
FMON_API void fmon_free_event(struct event *);  /* frees it unless another instance holds it */
FMON_API void fmon_drop_event(int id);
FMON_API int fmon_rate_ctrl(uint32_t limit, uint32_t interval, uint32_t log);

/* ---- diagnosis ---- */

/* (Hidden.) Counts an event whose path cannot be reported. `path`: what is known of it, or its beginning; may be empty.
 */
void fmon_lost_path(struct fmon *, const char *path);

/* Writes the state to the log at level 4; see _orx_fmon_dump. -1 for a type above 6. */
FMON_API int fmon_dump(uint32_t type, void *arg);

} /* extern "C" */

static_assert(sizeof(struct dentry_owner) <= sizeof(dentry::owner),
              "the owner area holds the core's and backend's fields");
static_assert(alignof(struct dentry_owner) <= 8, "the owner area is aligned to 8");

inline struct dentry_owner *owner_of(struct dentry *d) { return reinterpret_cast<struct dentry_owner *>(d->owner); }

inline uint32_t instance_bit(int id) { return 1U << id; }

/* Whether `id` names a live instance of a started monitor: 0, FMON_ENOTINIT or FMON_EINVAL. */
inline int fmon_check_instance(int id)
{
    if (!fmon.inited)
        return FMON_ENOTINIT;
    if (id < 0 || id >= FMON_MAX_INSTANCES || fmon.instances[id].name[0] == '\0')
        return FMON_EINVAL;
    return 0;
}

#endif
