/*
 * fs_served.h: the inside of the source of whole file systems, shared by its sources (see fs_source.h).
 *
 * The lists change under the monitor lock and the source's lock together, so that either of them is enough to read.
 */
#ifndef FMON_FS_SERVED_H
#define FMON_FS_SERVED_H

#include <pthread.h>
#include <sys/types.h>

#include <atomic>

#include "linux/fs/fs_ask.h"
#include "linux/fs/fs_engine.h"
#include "linux/fs/fs_group.h"
#include "linux/fs/fs_mounts.h"
#include "linux/fs/fs_queue.h"
#include "linux/fs/fs_reader.h"
#include "linux/fs/fs_source.h"

/* A file system on which something is served. */
struct fs_system {
    list_head link;
    int32_t fsid[2];
    dev_t dev;
    uint32_t users; /* roots and mounts on it */
    uint64_t bits;  /* of its mark; 0: it has none */
    bool renewed;   /* its mark was looked at, by the look at the mounts under way */
};

/* A directory that is served: of a watch, or "/" for system-wide events. */
struct fs_root {
    list_head link;
    struct watch *watch; /* null: system-wide */
    char *path;
    uint32_t kinds;
    bool recursive;
    bool displaced;           /* it has not this path any more, or nobody knows */
    bool end_told;            /* that it was moved or removed */
    bool tried;               /* to place it again, in this turn */
    uint64_t id;              /* in the engine */
    int mount_id;             /* -1: no mark serves the directory itself */
    struct fs_system *system; /* null: likewise */
    struct fs_stored_key key;
    list_head below; /* of fs_below */
};

/* A mount below a recursive root. */
enum fs_below_how {
    FS_BELOW_JOINED,   /* its directories lie below those of the mount that it is mounted in */
    FS_BELOW_ANCHORED, /* ... of which nothing is known: its path is its mount point's */
    FS_BELOW_PART,     /* it has marks on its directories */
    FS_BELOW_LEFT_OUT
};
struct fs_below {
    list_head link;
    enum fs_below_how how;
    bool seen; /* by the look under way */
    bool displaced;
    bool passing; /* left out for reasons that may pass */
    uint64_t id;
    int mount_id;
    unsigned major, minor;
    char *point;
    struct fs_stored_key key; /* of the mount's root, where it is served */
    struct fs_system *system; /* null: neither joined nor anchored */
    struct watch *part;       /* null when its directory went */
};

/* Records as they were read. */
struct fs_arena {
    char *bytes;
    size_t size, used;
};

/* Directories that the engine asks through, until its function returns. */
enum { FS_OPEN_MOUNTS = 16 };
struct fs_open_mount {
    int32_t fsid[2];
    int mount_id;
    int fd; /* -1: could not be opened */
};
struct fs_open_mounts {
    struct fs_open_mount all[FS_OPEN_MOUNTS];
    unsigned count;
};

/* What is known of an event stands above its kinds while it waits: whether it is about a directory, and a number of its
 * rename, given to those whose first half waits or has waited; 0: none. */
enum : uint32_t { FS_QUEUED_KINDS = 0x1fff, FS_QUEUED_DIR = 0x80000000u };
enum { FS_QUEUED_MOVE_SHIFT = 13, FS_QUEUED_MOVES = 1 << 18 };
struct fs_queued_move {
    uint32_t rename; /* of which the first half was put into the queue last */
    uint32_t number; /* 1..FS_QUEUED_MOVES - 1 */
};

struct fs_counters {
    uint64_t overflows, dropped, unresolved, too_long;
    int read_error; /* errno of the latest read that failed */
};

/* What failed for reasons that may pass: a look at the mounts is due again. */
struct fs_retry {
    bool due;
    uint32_t from, wait_ms; /* the monitor's time; 0: not yet waited for */
};

struct fs_source {
    bool on;
    bool again,
        drained;   /* the engine has records that it read itself; nothing waited behind the latest that were read */
    int error;     /* errno of a start that failed */
    int mounts_fd; /* says that mounts came or went; -1: nobody says so */
    int64_t read_until; /* ms: from then on nothing more is read before the lock was free */
    pthread_mutex_t lock;
    struct fs_group group;
    struct fs_engine *engine;
    struct fs_reader reader;
    struct fs_queue queue;
    struct fs_arena arena;
    struct fs_open_mounts open;
    struct fs_mounts mounts;
    struct fs_counters counters;
    struct fs_retry retry; /* with the monitor lock */
    struct fs_queued_move move;
    list_head roots, systems;
    struct fs_root *global; /* for system-wide events; null: nobody wants them */
    uint32_t wanted;        /* kinds of all roots */
    uint64_t next_id;
    bool cannot_ignore;         /* this kernel */
    std::atomic<uint32_t> news; /* FS_NEWS_* for the monitor thread */
};
extern struct fs_source fs_source; /* hidden */

enum { FS_NEWS_MOUNTS = 1, FS_NEWS_DISPLACED = 2 };

/* ---- fs_pass.cpp; with the source's lock ---- */

/* What the engine calls. */
struct fs_world fs_pass_world(uint32_t most_ignored);

/* The engine is called: it may have records read for some time. */
void fs_pass_begin(void);

/* Takes what waits in the group, as much as memory allows at once. False: there was nothing. */
bool fs_pass(void);

/* Takes everything that waits, within a time. */
void fs_pass_all(void);

/* An open directory of the n-th mount of the file system, of those that are served; -1: there are no more. */
int fs_pass_mount(const int32_t fsid[2], unsigned n);

/* Whether one of them was there, and could not be opened since the latest closing. */
bool fs_pass_mount_failed(const int32_t fsid[2]);

/* Closes what was opened for the engine. The end of the lock does so, too. */
void fs_pass_close_mounts(void);

void fs_pass_free(void);

/* Holds the source's lock while it lives. */
class FsLock
{
public:
    FsLock() { pthread_mutex_lock(&fs_source.lock); }
    ~FsLock()
    {
        fs_pass_close_mounts();
        pthread_mutex_unlock(&fs_source.lock);
    }
    FsLock(const FsLock &) = delete;
    FsLock &operator=(const FsLock &) = delete;
};

/* ---- fs_ignore.cpp; with the source's lock ---- */

/* What the engine's ignore() and heed() are. */
bool fs_ignore(const struct fs_key *directory);
bool fs_heed(const struct fs_key *directory);

/* ---- fs_view.cpp ---- */

/* What is at a path. */
struct fs_look {
    int fd; /* open for reading */
    dev_t dev;
    int mount_id;
    bool opens; /* its file system's handles can be opened */
    struct fs_stored_key key;
};

/* Opens a directory; `follow`: the path is a descriptor's, below /proc. 0, or FMON_FALLBACK_* and *error; nothing is
 * open then. */
uint32_t fs_look_at(const char *path, bool follow, struct fs_look *out, int *error);

/* The same of what is mounted at a path. What is open does not keep it from being unmounted, and shows nothing that is
 * mounted below; but where the kernel makes no copies of mounts. */
uint32_t fs_look_at_mount(const char *point, struct fs_look *out, int *error);

/* Whether that mount is there, and has that root: nothing is opened. */
bool fs_is_mounted(const char *point, int mount_id, const struct fs_key *root);

/* ---- fs_system.cpp; with the source's lock ---- */

/* As open_by_handle_at. */
int fs_open_handle(int mount_fd, const struct fs_key *key, int flags);

/* Whether a handle of the file system can be opened: -1 and errno. */
int fs_look_opens(const struct fs_look *look);

/* The file system of what is open, which has one user more; null: another device has its id, or no memory (`errno`: 0,
 * ENOMEM). */
struct fs_system *fs_system_get(const struct fs_look *look);

/* One user less; the last one takes the mark along. */
void fs_system_put(struct fs_system *system);

/* Marks the file system for these kinds, too. -1 and errno. */
int fs_system_mark(struct fs_system *system, int fd, uint32_t kinds);

/* Takes away what is not wanted any more of the file system's mark. */
void fs_system_shrink(struct fs_system *system);

/* What all recursive roots want of it. */
uint32_t fs_system_kinds(const struct fs_system *system);

/* Sets a mark anew that went with an unmount; `fd`: an open directory of the file system. */
void fs_system_renew(struct fs_system *system, int fd);

/* At the end: frees it, and touches nothing else. */
void fs_system_forget(struct fs_system *system);

/* An open directory of the mount, through which the file system of that id is seen; -1: there is none. */
int fs_mount_open(int mount_id, const int32_t fsid[2], const char *path);

/* ---- fs_root.cpp ---- */

/* Which directory is served, for whom. */
struct fs_wish {
    struct watch *watch; /* null: system-wide */
    const char *path;
    const char *open_path; /* leads there, too; another text is a descriptor's, below /proc */
    uint32_t kinds;
    bool recursive;
};

/* Makes a root and serves it: 0 or FMON_FALLBACK_*, with *error; *out is null then. Without the source's lock. */
uint32_t fs_root_add(const struct fs_wish *wish, struct fs_root **out, int *error);

/* The same of a directory that takes no mark: what is mounted below is all that is served. Null: no memory. Without the
 * source's lock. */
struct fs_root *fs_root_add_unmarked(const struct fs_wish *wish);

/* Its mounts must have gone before. Without the source's lock. */
void fs_root_remove(struct fs_root *root);

/* Serves a displaced root again, if the directory has its path. 0; FMON_ENOENT: it has not; or the engine's code.
 * Without the source's lock. */
int fs_root_place_again(struct fs_root *root);

/* Whether its directory is removed. Without the source's lock. */
bool fs_root_is_removed(const struct fs_root *root);

/* The root wants these kinds from now on. Without the source's lock. */
void fs_root_change_kinds(struct fs_root *root, uint32_t kinds);

/* At the end: frees the root and what is below it, and touches nothing else. */
void fs_root_forget(struct fs_root *root);

/* Adds the anchor of a directory whose file system is marked, `anchor` but for its descriptor: what waits is taken
 * first, and the directory is opened by `open_path` again. With the source's lock. 0 or the engine's code. */
enum fs_opening { FS_OPEN_PATH, FS_OPEN_FOLLOW, FS_OPEN_MOUNT };
int fs_anchor_at(struct fs_anchor *anchor, const char *open_path, enum fs_opening how);

/* What all roots together want: to be called when one came or went. With the source's lock. */
void fs_count_kinds(void);

/* ---- fs_below.cpp ---- */

/* Brings the mounts below the root in step with the mount table. Without the source's lock. */
void fs_below_update(struct fs_root *root);

/* Whether a mount below the root is served. */
bool fs_below_serves(struct fs_root *root);

/* Lets go of all. Without the source's lock. */
void fs_below_release(struct fs_root *root);

/* At the end: frees all, and touches nothing else. */
void fs_below_forget(struct fs_root *root);

#endif
