/*
 * orx_fmon.h: the file monitor as its agent and its clients see it.
 *
 * The module is a shared library, libfmon.so. The agent loads it (its undefined symbols are resolved from the agent:
 * see orx_base.h, orx_event_loop.h, orx_autolog.h), calls orx_fmon_init() once, and from then on any of its modules
 * may create an instance and add watches to it. Matching file events reach the instance's callback.
 *
 * Conventions, for every function here:
 *  - Result: 0 (or an id) is success, a negative value one of the FMON_E* codes or a code of the backend (below).
 *  - Text: NUL-terminated bytes, paths as the kernel has them (no encoding is assumed), at most 1022 bytes.
 *  - Null: not accepted unless stated.
 *  - Ownership: the module copies what it is given; an event lent to a callback belongs to the module and is gone
 *    when the callback returns.
 *  - Threads: every function may be called from any thread of the agent, except from inside a client callback:
 *    callbacks run on the monitor thread with the monitor lock held. What is for callbacks says so.
 */
#ifndef ORX_FMON_H
#define ORX_FMON_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "orx_list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Marks what libfmon.so exports; everything else in it is hidden. */
#define FMON_API __attribute__((visibility("default")))

/* Result codes. The backend passes its own through: -103 no fanotify in this process, -104 fanotify refused,
 * -105 inotify refused at start, -108 inotify refused a watch, -109 fanotify refused a mark, -110 the
 * watch-descriptor table could not grow, -117 the path of a directory is too long to be built. */
enum {
    FMON_ENOTINIT = -100, /* orx_fmon_init has not succeeded, or the monitor is ending */
    FMON_ENOMEM = -101,   /* an allocation failed, or the directory cache is full */
    FMON_EEXIST = -102,   /* the name or path exists already */
    FMON_EINVAL = -111,   /* bad argument, instance id, path or mask */
    FMON_ENOTSUP = -112,  /* the watch needs a source that this system lacks, or kinds which it cannot watch */
    FMON_EFULL = -113,    /* all instance slots are taken */
    FMON_ENOENT = -114    /* the path or watch does not exist, or is of the wrong type */
};

/* Event kinds: the kernel's inotify bits. event_str() and event_mask() convert to and from names. */
enum {
    FMON_ACCESS = 0x1,
    FMON_MODIFY = 0x2,
    FMON_ATTRIB = 0x4,
    FMON_CLOSE_WRITE = 0x8,
    FMON_CLOSE_NOWRITE = 0x10,
    FMON_OPEN = 0x20,
    FMON_MOVED_FROM = 0x40,
    FMON_MOVED_TO = 0x80,
    FMON_CREATE = 0x100,
    FMON_DELETE = 0x200,
    FMON_DELETE_SELF = 0x400,
    FMON_MOVE_SELF = 0x800,
    FMON_ALL_EVENTS = 0xfff,
    FMON_CLOSE = 0x18,
    FMON_LINK = 0x1000 /* a hard link was made: from kernel probes only, has no name, may not stand in a watch */
};

/* Watch flags. Exactly one of the first three must be set. */
enum {
    FMON_FILE = 0x1,         /* the path is a regular file */
    FMON_DIR = 0x2,          /* the path is a directory: itself and its direct children */
    FMON_MOUNT = 0x4,        /* the path names a mount, watched as a whole */
    FMON_RECURSIVE = 0x8,    /* descend into subdirectories (not with FMON_FILE) */
    FMON_DELAY = 0x10,       /* hold access and modify until the file is closed, deliver once */
    FMON_PID = 0x20,         /* watch the whole mask through the source that names the process */
    FMON_SYMBOLIC = 0x40,    /* accepted; changes nothing */
    FMON_DELETED = 0x80,     /* the path may be missing: wait for it, and wait again when it goes */
    FMON_SYNC = 0x100,       /* keep the cached tree in step with renames and new directories (not with FMON_MOUNT) */
    FMON_NO_LINKS = 0x80000, /* with fmon.ini's "hardened" 1: a path with a link in it counts as missing, instead of
                              * being resolved; the watch is stored under the path as it is given */
    FMON_DYNAMIC = 0x10000,  /* set by the module on a watch that a pattern made */
    FMON_ASTERISK = 0x20000  /* set by the module on a watch whose path holds one "*" */
};

enum { FMON_MAX_INSTANCES = 32 };

/* One pending event: what happened to one path by one process since the client last consumed it. */
struct event {
    char *path;       /* full path of the object; never null in a delivered event */
    char *container;  /* container mode: the container the path lies in, or "host"; else null */
    uint32_t mask;    /* event kinds, merged by OR */
    uint32_t pid;     /* causing process, 0 where the source reports none */
    uint32_t ref;     /* instances whose queue holds the record (bit i = instance i) */
    uint32_t pending; /* instances that hold it back until the file is closed */
    hlink link;       /* the module's own */
};

enum { FMON_DIR_UNKNOWN = 0, FMON_DIR_NO = 1, FMON_DIR_YES = 2 }; /* fmon_event_details.dir */

/* What more is known of an event. It grows at its end: `size` says how much of it both sides know. */
struct fmon_event_details {
    uint32_t size; /* set by the caller to sizeof(struct fmon_event_details); lowered to what was filled */
    uint32_t dir;  /* FMON_DIR_*: whether it happened to a directory, as the source says; nothing is looked up */
    uint64_t move; /* the two events of one rename have the same number, which no other has for a long time; 0: not
                    * known, as from kernel probes, or there were several renames in one event */
};

/* Client callback, on the monitor thread with the monitor lock held: it must be quick and must not call back into the
 * module. A result above 0 pauses the instance for that many milliseconds and keeps the event; else it is consumed. */
typedef int32_t (*fmon_client_cb)(struct event *);

/* What the backend missed since the start. */
struct fmon_losses {
    uint64_t unknown_wd;       /* records for a watch descriptor that is not known */
    uint64_t inotify_overflow; /* overflows of the inotify queue */
    uint64_t fanotify_overflow;
};

/* What was missed since the start, by where it was lost. */
struct fmon_loss_counts {
    uint64_t inotify;    /* overflows of the kernel's inotify queue: how many events each lost is not known */
    uint64_t fanotify;   /* overflows of a fanotify queue */
    uint64_t unopened;   /* fanotify events whose file could not be opened */
    uint64_t unknown_wd; /* inotify records for an entry of a directory that is not known */
    uint64_t path;       /* events whose path is too long, or is not that of the file they are for */
    uint64_t memory;     /* events for which there was no memory */
    /* records of kernel probes, by the members of kp_losses; 0 where the library does not count */
    uint64_t probes_ring, probes_queue, probes_cleaned, probes_unreadable, probes_missed;
};

/* Why a directory, or a single file, could not be watched. */
enum {
    FMON_LEFT_INOTIFY_LIMIT = 1,  /* fs.inotify.max_user_watches is reached */
    FMON_LEFT_FANOTIFY_LIMIT = 2, /* fs.fanotify.max_user_marks is reached */
    FMON_LEFT_CACHE_FULL = 3,     /* max_dentries is reached, or there was no memory for an entry */
    FMON_LEFT_DENIED = 4,         /* it may not be read, or not be entered */
    FMON_LEFT_DESCRIPTORS = 5,    /* no descriptor was left to open it with */
    FMON_LEFT_TOO_LONG = 6,       /* its path is longer than 1022 bytes */
    FMON_LEFT_GONE = 7,           /* it went, or another thing took its name, meanwhile: nothing is missed */
    FMON_LEFT_OTHER = 8
};

/* What was to be done when that was found. */
enum {
    FMON_STEP_OPEN = 1,     /* opening it, to put marks on what is opened */
    FMON_STEP_READ = 2,     /* reading it for what is in it */
    FMON_STEP_INOTIFY = 3,  /* its inotify watch */
    FMON_STEP_FANOTIFY = 4, /* its fanotify mark */
    FMON_STEP_CACHE = 5,    /* its entry in the directory cache */
    FMON_STEP_TABLE = 6,    /* its entry in the table of watch descriptors */
    FMON_STEP_MEMORY = 7    /* memory for the walk below it */
};

/* Directories and single files that could not be watched since the start, by the members of the first enumeration:
 * each attempt once, for what was met first. One that has a mark but not all of them counts, too. */
struct fmon_left_out {
    uint64_t inotify_limit, fanotify_limit, cache_full, denied, descriptors, too_long, gone, other;
};

/* One refusal. */
struct fmon_refusal {
    int32_t code;    /* the result that a request would have; 0: nothing has been refused */
    int32_t error;   /* errno; 0: the system was not asked */
    uint32_t reason; /* FMON_LEFT_* */
    uint32_t step;   /* FMON_STEP_* */
    char path[1024]; /* cut at 1023 bytes; empty: too long to be built */
};

enum { FMON_SOURCE_OFF = 0, FMON_SOURCE_ON = 1, FMON_SOURCE_REFUSED = 2 }; /* fmon_source.state */

/* Why a source of events is off or refused, or what one that is on could not do since (FMON_WHY_MOUNTS). */
enum {
    FMON_WHY_NONE = 0,
    FMON_WHY_SYSTEM = 1,    /* the system refused it: see `error` */
    FMON_WHY_CONTAINER = 2, /* not used inside a container */
    FMON_WHY_LIBRARY = 3,   /* the probe library cannot be loaded: see `error` */
    FMON_WHY_SYMBOL = 4,    /* it lacks the function that `why` names */
    FMON_WHY_KERNEL = 5,    /* it does not work on this kernel; `why`: in its own words, where it has such */
    FMON_WHY_MACHINE = 6,   /* no probes are known for the machine that `why` names */
    FMON_WHY_RELEASE = 7,   /* the kernel's release, in `why`, is not MAJOR.MINOR.PATCH-BUILD */
    FMON_WHY_CONFIG = 8,    /* fmon.ini cannot be read */
    FMON_WHY_MOUNTS = 9,    /* the filter of the probes has no room for all mounts */
    FMON_WHY_INSTANCE = 10, /* the library made no instance */
    FMON_WHY_PROBE = 11,    /* a probe was refused, which `why` says; `code`: by the library */
    FMON_WHY_OTHER = 12     /* see `why` */
};

/* A source of events, or the monitor as a whole. */
struct fmon_source {
    uint32_t state;  /* FMON_SOURCE_*. Probes that are on may have been switched off by _clt_file_enable */
    uint32_t reason; /* FMON_WHY_*, what was met first */
    int32_t code;    /* result; 0: none */
    int32_t error;   /* errno; 0: the system was not asked */
    char why[240];   /* cut at 239 bytes, may be empty */
};

/* Why a watch, or a file system that is mounted below a recursive watch, has marks of inotify and fanotify although
 * fmon.ini's fs_events asks for the source of whole file systems. */
enum {
    FMON_FALLBACK_NONE = 0,
    FMON_FALLBACK_INIT = 1,   /* the system refused the source's fanotify group */
    FMON_FALLBACK_KIND = 2,   /* the source serves no such watch: a file, a mount, a tree with a limit */
    FMON_FALLBACK_MARK = 3,   /* the mark on the file system was refused */
    FMON_FALLBACK_HANDLE = 4, /* the file system has no file handles */
    FMON_FALLBACK_OPEN = 5,   /* a file handle cannot be opened: CAP_DAC_READ_SEARCH is missing */
    FMON_FALLBACK_FSID = 6,   /* another device has the same file system id */
    FMON_FALLBACK_ROOT = 7,   /* the mark, or inotify watch, on the watched directory itself was refused */
    FMON_FALLBACK_MEMORY = 8,
    FMON_FALLBACK_CONTAINER = 9 /* the module runs inside a container */
};

/* The latest such case. */
struct fmon_fallback {
    uint32_t reason; /* FMON_FALLBACK_* */
    int32_t error;   /* errno; 0: the system was not asked */
    char path[1024]; /* of the watch, or of the mount point; cut at 1023 bytes */
};

/* What the source of whole file systems missed since the start. */
struct fmon_fs_losses {
    uint64_t overflows;  /* of the kernel's queue: how many events each lost is not known */
    uint64_t dropped;    /* records and events thrown away at the limit of memory */
    uint64_t unresolved; /* records whose directory could not be found out any more; directories that fmon.ini's
                            fs_ignore kept silent until they came into a watched one */
};

/* The source of whole file systems (fmon.ini's fs_events). Everything is 0 while the key is. */
struct fmon_fs_status {
    struct fmon_source source;   /* on: the group stands; what it cannot serve is in `last_fallback` */
    uint64_t watches;            /* of all instances that it serves now; among fmon_status.watches */
    uint64_t file_systems;       /* marked now */
    uint64_t directories;        /* in its table now */
    uint64_t max_directories;    /* what the table holds: fmon.ini's fs_directories */
    uint64_t memory, max_memory; /* bytes of records and events that wait now, and their limit */
    uint64_t records;            /* read from the kernel */
    uint64_t asked;              /* look-ups that the table could not answer and the kernel was asked */
    uint64_t fallbacks;          /* watches and mounts that have other marks instead */
    uint64_t left_out;           /* mounts below a recursive watch that could not be marked by any source */
    struct fmon_fs_losses lost;
    struct fmon_fallback last_fallback;
};

/* The monitor's state in numbers. It grows at its end: `size` says how much of it both sides know. All counts are since
 * the start, unless they say "now". */
struct fmon_status {
    uint32_t size;     /* set by the caller to sizeof(struct fmon_status); lowered to what was filled */
    uint32_t hardened; /* fmon.ini's key */
    struct fmon_loss_counts lost;
    uint64_t released;    /* held-back records handed on before their file was closed, since the table was full */
    char lost_path[1024]; /* what the latest loss of `lost.path` was about, cut at 1023 bytes; empty: not known */

    uint64_t watches;         /* of all instances, placed now: not those that wait for their path */
    uint64_t inotify_watches; /* of the kernel, now */
    uint64_t directories;     /* that carry a mark of inotify or fanotify now */
    uint64_t records;         /* in the event table now */
    uint64_t max_records;     /* what it holds: fmon.ini's max_events */
    uint64_t refusals;        /* how often there was a new last_refusal */
    struct fmon_left_out left_out;
    struct fmon_refusal last_refusal;
    /* Whether the monitor runs. Refused: the latest start failed, or the monitor had to end; `why` says what failed. */
    struct fmon_source monitor;
    /* inotify; fanotify on files and directories; fanotify on mounts; who caused inotify's events; system-wide events
     */
    struct fmon_source inotify, fanotify, mounts, inotify_probe, file_probes;
    struct fmon_fs_status fs;
};

static_assert(sizeof(struct fmon_event_details) == 16, "details of an event");

/* The structures are the same in 32-bit and 64-bit builds. */
static_assert(sizeof(struct fmon_loss_counts) == 88, "loss counters");
static_assert(sizeof(struct fmon_left_out) == 64, "counters of what is left out");
static_assert(sizeof(struct fmon_refusal) == 1040, "refusal");
static_assert(sizeof(struct fmon_source) == 256, "source");
static_assert(offsetof(struct fmon_status, lost) == 8, "status");
static_assert(offsetof(struct fmon_status, released) == 96, "status");
static_assert(offsetof(struct fmon_status, lost_path) == 104, "status");
static_assert(offsetof(struct fmon_status, watches) == 1128, "status");
static_assert(offsetof(struct fmon_status, left_out) == 1176, "status");
static_assert(offsetof(struct fmon_status, last_refusal) == 1240, "status");
static_assert(offsetof(struct fmon_status, monitor) == 2280, "status");
static_assert(offsetof(struct fmon_status, inotify) == 2536, "status");
static_assert(offsetof(struct fmon_status, file_probes) == 3560, "status");
static_assert(sizeof(struct fmon_fallback) == 1032, "fallback");
static_assert(sizeof(struct fmon_fs_losses) == 24, "losses of the source of file systems");
static_assert(offsetof(struct fmon_fs_status, lost) == 336, "state of the source of file systems");
static_assert(offsetof(struct fmon_fs_status, last_fallback) == 360, "state of the source of file systems");
static_assert(sizeof(struct fmon_fs_status) == 1392, "state of the source of file systems");
static_assert(offsetof(struct fmon_status, fs) == 3816, "status");
static_assert(sizeof(struct fmon_status) == 5208, "status");

/* What became of a directory, or single file, that is to be watched: `refusal` null: it carries an inotify watch from
 * now on, which nothing carried before. Else it was refused; a second refusal of the same attempt may follow. On the
 * thread that places, with the monitor lock held: it must be quick and must not call back into the module; what it is
 * given is gone when it returns. */
typedef void (*fmon_mark_cb)(const char *path, const struct fmon_refusal *refusal);

/* ---- the plug-in ---- */

/* Starts the monitor and its thread; both arguments are ignored. 0 also when it runs already or is disabled by an
 * earlier failure; -1 when this start failed. */
FMON_API int orx_fmon_init(uint32_t unused, void *unused_arg);

/* 1 when the module runs inside a container that sees the host's files below /rootfs, else 0. Set by orx_fmon_init. */
extern FMON_API int32_t g_container_flag;

/* ---- instances ---- */

/* Creates an instance of that name (15 bytes count) and returns its id, 0..31. A null callback consumes everything.
 * -1: the table is full; FMON_EEXIST: the name is taken; FMON_EINVAL: empty name; FMON_ENOTINIT. */
FMON_API int _orx_fmon_create_instance(const char *name, fmon_client_cb cb);

/* Removes an instance with its watches and queued events. -1: no such instance. FMON_ENOTINIT: the monitor does not
 * run; it goes at the next start, and its callback is not called again. */
FMON_API int _orx_fmon_del_instance(uint32_t id);

/* A callback that consumes every event. */
FMON_API int callback_func(struct event *);

/* ---- watches ---- */

/* Adds a watch. `path` is absolute, without "//" and trailing "/", and may hold one "*" (a pattern, looked up again
 * every tbd_interval). `max_depth` (16 bits count) limits how deep the first walk of a recursive watch goes; 0 is no
 * limit. `max_subdirs` limits nothing unless its top bit is set. Codes: FMON_EINVAL, FMON_EEXIST, FMON_ENOMEM,
 * FMON_ENOTSUP, FMON_ENOENT, FMON_ENOTINIT or a code of the backend. */
FMON_API int _orx_fmon_add_watch(uint32_t id, const char *path, uint32_t mask, uint32_t flags, uint32_t max_depth,
                                 uint32_t max_subdirs);

/* Has the recursive watches of an instance that has no watch yet spare a directory, there or not: they get no event
 * from below the path, and neither mark nor walk what is at or below it, unless another instance wants that. Of the
 * directory itself they get what happens to its name. Mounts that are watched as such are not concerned. `path` is
 * absolute, resolved, without "//", "*" and trailing "/", and not "/". It holds until the instance is removed. 0,
 * FMON_EINVAL: a bad path, no such instance, or one with watches; FMON_EEXIST: it is spared already; FMON_ENOMEM,
 * FMON_ENOTINIT. */
FMON_API int _orx_fmon_spare(uint32_t id, const char *path);

/* Removes the watch whose stored (resolved) path is exactly `path`. FMON_ENOENT: there is none. */
FMON_API int _orx_fmon_del_watch(uint32_t id, const char *path);

enum {
    FMON_RESYNC_MARK = 1,  /* the directory is marked as the recursive watches above it want */
    FMON_RESYNC_FORGET = 2 /* what is known of directories in it, which are not there any more, is forgotten */
};

/* Brings what is known of one directory in line with the disk, after records were lost or marks refused. `path`: as
 * events report it. A whole tree is brought in line from its top down, each directory before those that are in it; what
 * is made in one after its call is reported by the kernel. The lock is held for one directory at a time. Result: 1: it
 * carries a mark that nothing carried before; 0: it carried its marks, or is a watch of its own, whose marks are left
 * to its upkeep; FMON_ENOENT: nothing is there, or no recursive watch marks directories there; FMON_EINVAL: a bad path;
 * FMON_ENOTINIT; FMON_ENOMEM or a code of the backend: it was refused, and counted so. */
FMON_API int _orx_fmon_resync(const char *path, uint32_t what);

/* Adds (add != 0) or removes system-wide events of these kinds for the instance. -1: no source for them. */
FMON_API int _orx_fmon_global_watch(uint32_t id, uint32_t mask, uint32_t add);

/* Rebuilds the filter of the system-wide sources after mounts changed. */
FMON_API int _orx_fmon_global_update(uint32_t id);

/* Switches the kernel probes on (1) or off (0). Takes no lock. */
FMON_API void _clt_file_enable(uint32_t flag);

/* ---- diagnosis ---- */

/* Copies the backend's loss counters. FMON_ENOTINIT before the start. */
FMON_API int _orx_fmon_losses(struct fmon_losses *out);

/* Fills the first out->size bytes of the monitor's state. FMON_EINVAL: a size below 8. FMON_ENOTINIT: the monitor does
 * not run; after a start that failed, or when it had to end, what it was is filled all the same: `monitor` says why. */
FMON_API int _orx_fmon_status(struct fmon_status *out);

/* From now on `cb` is called for every directory and file that is marked or refused, of whatever instance. One for the
 * whole process, kept by a restart; null: none. FMON_ENOTINIT before the start. */
FMON_API int _orx_fmon_on_mark(fmon_mark_cb cb);

/* Writes the monitor's state to the log at level 4. `type`: 0 all, 1 instances, 2 waiting watches, 3 directories,
 * 4 events, 5 backend, 6 watched files; above 6: -1. `arg` is handed to the backend and may be null. */
FMON_API int _orx_fmon_dump(uint32_t type, void *arg);

/* Writes the pattern of the paths below which containers keep their files; `out260` holds 260 bytes. Returns 0. */
FMON_API int _orx_get_container_path(char *out260);

/* Fills the first out->size bytes of what is known of the event that a callback was given, inside of that callback and
 * nowhere else. FMON_EINVAL: a size below 8. */
FMON_API int _orx_fmon_event_details(const struct event *, struct fmon_event_details *out);

/* ---- names of masks ---- */

/* Names of a mask, joined by ",", in a static buffer of 256 bytes, each function its own: valid until the next call of
 * the same function. Only for use inside a client callback or before the start, since the module writes them too. */
FMON_API char *event_str(uint32_t mask);
FMON_API char *event_str2(uint32_t mask);
FMON_API char *flags_str(uint32_t flags);

/* The mask that a comma-separated list names; the text is cut up in place, unknown names add nothing. Thread-safe. */
FMON_API uint32_t event_mask(char *text);
FMON_API uint32_t flags_mask(char *text);

#ifdef __cplusplus
}
#endif

#endif
