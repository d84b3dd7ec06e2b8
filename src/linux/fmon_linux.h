/*
 * fmon_linux.h: the Linux backend: inotify per directory, fanotify marks on directories, files and mounts, and the
 * kernel-probe sources.
 *
 * A watch becomes kernel marks on the dentry of its path; each mark carries the union of what all watches concerned
 * need, and only what nobody else needs is taken away with a watch. Everything runs under the monitor lock.
 *
 * Sources: fmon_linux.cpp (state, start, stop, selection), fmon_linux_marks.cpp (kernel marks of one dentry),
 * fmon_linux_place.cpp (what they are put on), fmon_linux_sweep.cpp (marks that stayed behind), fmon_linux_watch.cpp
 * (adding and deleting watches), fmon_linux_tree.cpp (collect, punish, moved and new directories), fmon_linux_mount.cpp
 * (mount watches), fmon_linux_read.cpp (readers), fmon_linux_keep.cpp (what records mean for the tree),
 * fmon_linux_global.cpp (system-wide switch).
 */
#ifndef FMON_FMON_LINUX_H
#define FMON_FMON_LINUX_H

#include <sys/types.h>

#include <cstdint>

#include "fmon.h"
#include "linux/seq.h"

/* Backend codes (see orx_fmon.h). */
constexpr int FMON_LINUX_ENOFAN = -103;
constexpr int FMON_LINUX_EFANINIT = -104;
constexpr int FMON_LINUX_EINOINIT = -105;
constexpr int FMON_LINUX_EINOTIFY = -108;
constexpr int FMON_LINUX_EFANOTIFY = -109;
constexpr int FMON_LINUX_ESEQ = -110;
constexpr int FMON_LINUX_EPATH = -117;

/* Internal watch flags: no other watch keeps this mark; the path is an open descriptor's, below /proc. */
#define FMON_LINUX_LAST_MARK 0x40000u
#define FMON_LINUX_OPENED 0x100000u

/* The same: what of a watch the source of whole file systems cannot serve (linux/fs/fs_below.cpp). */
#define FMON_LINUX_PART 0x400000u

/* What fanotify can report. */
constexpr uint32_t FMON_LINUX_FANOTIFY_KINDS =
    FMON_ACCESS | FMON_MODIFY | FMON_CLOSE_WRITE | FMON_CLOSE_NOWRITE | FMON_OPEN;

enum { FMON_LINUX_READ_BUFFER = 4096, FMON_LINUX_PASS_LIMIT = 100 };

/* What a read pass met (fmlnx.read_status). */
enum { READ_UNKNOWN_WD = 0x1, READ_INOTIFY_OVERFLOW = 0x2, READ_FANOTIFY_OVERFLOW = 0x4 };

/* fmlnx.fan_fd */
enum { FAN_FD_FILE = 0, FAN_FD_MOUNT = 1 };

/* 32-bit code sees no large inode number or size unless it is built for them. */
static_assert(sizeof(off_t) >= 8 && sizeof(ino_t) >= 8, "define _FILE_OFFSET_BITS=64");

/* What a directory needs from either source. */
struct fmon_masks {
    uint32_t fan, ino;
};

/* What marks are put on, while it is open: a descriptor and the name that leads to it. fd -1: the dentry's path. */
struct fmon_place {
    int fd;
    bool fresh;    /* carries no fanotify mark of the dentry's yet */
    bool replaced; /* the dentry stood for another object */
    char link[sizeof("/proc/self/fd/-2147483648")];
};

/* What is at a dentry's path. */
enum {
    PLACE_UNKNOWN,   /* the path cannot be looked at, or the index of inodes is not kept */
    PLACE_GONE,      /* nothing, or something else than a directory */
    PLACE_SAME,      /* what it stands for */
    PLACE_OTHER_DIR, /* another directory */
};

/* The block that walks carry from a directory to its children. */
union fmon_walk_data {
    struct fmon_masks m;
    unsigned char raw[DCACHE_DATA_SIZE];
};
static_assert(sizeof(union fmon_walk_data) == DCACHE_DATA_SIZE, "a walk copies blocks of this size");

extern "C" {

/*
 * The backend's state. `fds`: positions 0..inotify_num-1 inotify-type sources, then the fanotify descriptors for files
 * and directories and for mounts, then the system-wide probe sources; -1 is an unusable slot. `selectable` runs
 * parallel: a descriptor to wait for, -1 it is ready, -2 leave it out.
 */
struct fmlnx_t {
    uint32_t initialised;
    int32_t *fds, fd_num, fan_fd[2], inotify_num;
    uint32_t kp_global;     /* system-wide probe sources are usable */
    uint32_t by_descriptor; /* marks are put on opened objects, and the index of inodes is kept (inode_index.h) */
    int32_t event_fd;       /* of the fanotify record being handled, -1: none */
    /* Fanotify marks that stayed on what left the cached tree, and those of them that no handle opens. */
    uint64_t stale_marks, marks_out_of_reach;
    uint32_t last_sweep, sweep_wait, making_room; /* ms, ms, 1 meanwhile */
    const struct watch *placing;                  /* whose tree is being walked, and which has no place in it yet */
    uint32_t last_check;                          /* of watched directories' places, ms */
    struct seq_table seq;
    int32_t highest_wd; /* that was given so far */
    uint64_t marked_directories;
    list_head mounts;
    uint64_t unknown_wd_count, ino_overflow, fan_overflow;
    uint32_t read_status;
    uint32_t rate_limit, rate_interval, rate_log;
    uint32_t *period_start, *delay, *io_count; /* per position */
    int32_t *selectable;
    int32_t events_this_pass, max_events_per_pass;
    int32_t fs_position; /* of the source of whole file systems in `fds`, the last one; 0: none */
    int32_t next_first;  /* where the next pass begins: behind the position that used a hardened monitor's pass up */
};
extern struct fmlnx_t fmlnx; /* hidden */

/* ---- start, stop, selection ---- */

FMON_API int fmon_linux_pre_init(void);
FMON_API int fmon_linux_init(struct fmon *);
FMON_API void fmon_linux_deinit(void);
FMON_API int fmon_linux_get_selectable_fds(int32_t **out_fds, uint32_t *out_timeout_ms);
FMON_API void fmon_linux_dump(uint32_t type, void *arg);
FMON_API void _dump_file_list(void);

/* ---- fanotify wrappers ---- */

/* A fanotify descriptor, never 0; FMON_LINUX_ENOFAN or FMON_LINUX_EFANINIT. */
FMON_API int init_fanotify(void);
FMON_API int fanotify_add(int fd, const char *path, uint32_t mask, uint32_t flags);
FMON_API int fanotify_del(int fd, const char *path, uint32_t mask, uint32_t flags);
int fanotify_flush(int fd); /* every mark on files and directories */
FMON_API int fanotify_ignore(int fd, int dirfd, uint32_t mask, int add);

/* The system's calls, as init_fanotify found them; a mark is on what `dirfd` is open on. -1 and errno. */
int fanotify_call_init(unsigned flags, unsigned event_flags);
int fanotify_call_mark(int fd, unsigned operation, uint64_t mask, int dirfd);

/* ---- watches ---- */

FMON_API int fmon_check_watch(struct watch *);
FMON_API int fmon_linux_add_watch(struct fmon *, struct watch *);
FMON_API int fmon_linux_del_watch(struct fmon *, struct watch *);
FMON_API int fmon_linux_punish_unexpected_watch(int fd, char *path);

/* Whether the watch is a client's, and counted: 1 or 0. */
inline unsigned fmon_linux_counts(const struct watch *w) { return (w->flags & FMON_LINUX_PART) == 0; }

/* Marks of mount watches (fmon_linux_mount.cpp). */
int fmon_linux_add_mount_watch(struct watch *);
void fmon_linux_del_mount_watch(struct watch *);

/* Masks of a dentry: of its own watches; of its recursive ones; of those and every ancestor's recursive ones. */
struct fmon_masks fmon_linux_own_masks(struct dentry *);
struct fmon_masks fmon_linux_dir_masks(struct dentry *); /* of its own watches with "dir" */
struct fmon_masks fmon_linux_recursive_own_masks(struct dentry *);
struct fmon_masks fmon_linux_recursive_masks(struct dentry *);
/* The last of these, of what has that name in the dentry; null: of the dentry itself. */
struct fmon_masks fmon_linux_recursive_masks_of(struct dentry *, const char *name);
inline struct fmon_masks masks_or(struct fmon_masks a, struct fmon_masks b) { return {a.fan | b.fan, a.ino | b.ino}; }

/* Opens what a dentry's marks go on and enters the dentry into the index as standing for that: by the dentry's path; as
 * an entry of its parent's open stream; as the child of a parent that is still in its place; only if it is what the
 * dentry stands for already. Not by_descriptor: nothing is opened, marks go by name. 0, FMON_ENOENT, FMON_LINUX_EPATH,
 * FMON_ENOMEM or FMON_LINUX_EINOTIFY; nothing is open then. */
int fmon_linux_place_open(struct fmon_place *, struct dentry *, uint32_t watch_flags);
int fmon_linux_place_open_at(struct fmon_place *, struct dentry *, int parent_fd);
int fmon_linux_place_open_child(struct fmon_place *, struct dentry *);
int fmon_linux_place_reopen(struct fmon_place *, struct dentry *);
void fmon_linux_place_close(struct fmon_place *);

/* The dentry stands for another directory: its watches that the source of whole file systems serves are placed there,
 * or get marks. */
void fmon_linux_serve_anew(struct dentry *);

/* What is at the dentry's path now. */
int fmon_linux_in_place(struct dentry *);

/* The dentry's fanotify mark stays behind on what it stood for. */
void fmon_linux_lost_mark(struct dentry *);

/* Whether the dentry carries a watch descriptor or a fanotify mark; one that does not leaves the index. */
inline bool fmon_linux_marked(struct dentry *d) { return owner_of(d)->wd >= 0 || (d->owner_bits & DENTRY_FAN_MARK); }
void fmon_linux_forget_bare(struct dentry *);

/* Gives the dentry its watch descriptor (-1: none), or notes whether it carries a fanotify mark. What changes either
 * goes through these, which count the marked directories. */
void fmon_linux_set_wd(struct dentry *, int32_t wd);
void fmon_linux_set_fan_mark(struct dentry *, bool carries);

/* The dentry is going to stand for another inode: its watch stays with another one that stands for the same, if that
 * has a use for it. */
void fmon_linux_pass_watch_on(struct dentry *);

/* Notes that the dentry stands for a file, or for a directory. */
void fmon_linux_set_file(struct dentry *, bool is_file);

/* Kernel marks. `given` or `path` null: the dentry's; with a place, it is only what the log says. 0 or a code. */
int fmon_linux_fan_up(struct dentry *, const char *given, const struct fmon_place *, uint32_t old, uint32_t add,
                      uint32_t flags);
int fmon_linux_fan_down(struct dentry *, const char *path, uint32_t remain, uint32_t del, uint32_t flags);
int fmon_linux_ino_up(struct dentry *, const struct fmon_place *, uint32_t old, uint32_t add);
int fmon_linux_ino_down(struct dentry *, uint32_t remain, uint32_t del);

/* Marks everything below `start` that is on disk; `base` is what its directories inherit. FMON_ENOENT. */
int fmon_linux_mark_subtree(struct dentry *start, int32_t max_depth, int32_t max_subdirs, struct fmon_masks base);

/* Takes the masks of a removed recursive watch from everything cached below `start` and frees what then is bare;
 * `inherited` is what its directories keep inheriting. */
void fmon_linux_unwatch_subtree(struct dentry *start, struct fmon_masks inherited, struct fmon_masks removed);

/* Removes fanotify marks that stayed behind, some time after one did: at the end of a pass; and when the kernel's limit
 * is reached: then 1 when there may be room now. */
void fmon_linux_sweep_marks(uint32_t now_ms);
int fmon_linux_make_room_for_marks(void);

/* After a flush: places the fanotify mark of every dentry that carried one. */
void fmon_linux_place_marks_anew(void);

/* Removes the fanotify mark of what is open; `type`: FMON_FILE or FMON_DIR. -1 and errno. */
int fmon_linux_take_mark(int fd, uint32_t type);

/* Frees a dentry of the cache, first taking away a kernel watch that still names it. As dcache_del. */
int fmon_linux_drop_dentry(struct dentry *);

/* Frees dentries from here upward that carry nothing. */
void fmon_linux_collect(struct dentry *);

/* The child of a directory went, by rename and by removal: what has its name now may be another one, or be itself
 * again. */
void fmon_linux_departed(struct dentry *child);
void fmon_linux_removed(struct dentry *child);

/* Every tbd_interval: a watched directory that was removed and made again while somebody holds the former one, in a
 * directory that is not watched, is reported by no event. What is at such a path is marked; one a call. */
void fmon_linux_check_places(uint32_t now_ms);

/* Of the kinds that inotify reported of the dentry itself, those that are not there only to notice the end of a file.
 */
uint32_t fmon_linux_told(struct dentry *, uint32_t kinds);

/* Takes a vanished dentry's watches to watch_out_service and drops it when it is bare; may free it. */
void fmon_linux_punish(struct dentry *, uint32_t fe, uint32_t ie);

void fmon_linux_moved_away(struct dentry *);                                   /* may free it and its parents */
int fmon_linux_new_subdir(struct dentry *parent, const char *name, int moved); /* 0 or -1 */

/* One directory in line with the disk: as _orx_fmon_resync (fmon_linux_resync.cpp). */
int fmon_linux_resync(const char *path, uint32_t what);

/* ---- reading ---- */

FMON_API int fmon_linux_read_event(struct fmon *, uint32_t now_ms, fmon_event_cb);  /* with kernel probes */
FMON_API int fmon_linux_read_event2(struct fmon *, uint32_t now_ms, fmon_event_cb); /* without */

/* The dentry that a watch descriptor stands for now, or null. */
struct dentry *fmon_linux_live_dentry(int32_t wd);

/* What records of the inotify descriptor and of the inotify probe share: a descriptor that stands for nothing is
 * counted; a watch that the kernel dropped; the tree's part in an event, which calls the handlers below. */
void fmon_linux_unknown_wd(int32_t wd, const char *name); /* of the entry that the record is about; null: none */
int fmon_linux_ignored(int wd);
void fmon_linux_keep_tree(int32_t wd, uint32_t mask, const char *name);
void fmon_linux_on_create(struct dentry *, const char *name, int is_dir);
void fmon_linux_on_moved_from(struct dentry *, const char *name, int is_dir);
void fmon_linux_on_moved_to(struct dentry *, const char *name, int is_dir);
void fmon_linux_on_move_self(struct dentry *, const char *name, int is_dir);
void fmon_linux_on_delete(struct dentry *, const char *name, int is_dir);
void fmon_linux_on_attrib(struct dentry *, const char *name, int is_dir);

/* ---- system-wide events ---- */

/* Whether the system-wide source reports what happens to contents as cheaply as mount watches: these must not report it
 * a second time. */
bool fmon_linux_global_has_contents(void);

FMON_API int fmon_linux_add_global(uint32_t mask);
FMON_API int fmon_linux_del_global(uint32_t mask); /* mask: what is still wanted */
FMON_API int fmon_linux_update_global(int id);     /* the id changes nothing */

} /* extern "C" */

#endif
