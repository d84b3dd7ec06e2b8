/*
 * fs_engine.h: which path the records of whole file systems are about. A record names a directory by its handle and an
 * entry in it by its name; the engine keeps a table of directories, learns from the records where each one lies, asks
 * the kernel for what neither the table nor the records that wait can say, and hands on what lies below an anchor with
 * the path of the moment of the event. What it cannot say for certain it counts, and never guesses.
 *
 * An anchor is a directory with a path: a watch's root. A joint is what leads from the root of a mount to the directory
 * that it is mounted in. Several of both may stand on one directory (bind mounts), anchors may lie inside each other:
 * an event is handed on once for each distinct path.
 *
 * Not safe to be used by two threads at once: its owner has a lock. None of its functions waits for anything but the
 * disk. The callbacks are called from inside of its functions and must not call the engine.
 */
#ifndef FMON_FS_ENGINE_H
#define FMON_FS_ENGINE_H

#include <cstddef>
#include <cstdint>

#include "linux/fs/fs_key.h"

struct fs_engine;
struct fs_asks;

enum { FS_PATH_MAX = 1022 }; /* bytes of the longest path that is handed on */

enum fs_loss {
    FS_LOST_OVERFLOW,   /* the kernel's queue was full; counted once an overflow record */
    FS_LOST_UNRESOLVED, /* records whose directory could not be found out, and records that are cut; and once for each
                           directory that came inside while the kernel was asked to report nothing of its files */
    FS_LOST_TOO_LONG,   /* events below an anchor with a path longer than FS_PATH_MAX */
    FS_LOSSES
};

/* The kernel joins records: several kinds may stand in one event. They happened in the order of fs_event_next(). */
struct fs_event {
    const char *path; /* terminated; valid during the call */
    uint32_t path_len;
    uint32_t kinds;    /* FMON_* event kinds, one or several */
    int32_t pid;       /* as the record has it; 0: not seen from here */
    bool is_dir;       /* what happened, happened to a directory */
    bool delete_first; /* FMON_DELETE was before FMON_CREATE: the entry is there; see struct fs_world */
    uint32_t rename;   /* FMON_MOVED_FROM, FMON_MOVED_TO: both of one rename have the same number, no two at once */
};

/* Takes the kind that happened first out of *left (at the start: event->kinds) and returns it; 0: there are none left.
 */
uint32_t fs_event_next(const struct fs_event *event, uint32_t *left);

/* Records as read(2) gave them. */
struct fs_chunk {
    const char *bytes; /* stays where it is, and as it is, until done() */
    size_t size;
    bool drained; /* the group had nothing more (EAGAIN) when it was read */
};

/* What the engine needs of the outside. `arg` is handed to each. */
struct fs_world {
    void *arg;

    /* An open directory (not O_PATH) on the n-th (0, 1, ...) mount through which a file system is looked at, no two of
     * them on one mount; it stays open until the engine's function returns, and is the owner's to close. -1: there are
     * no more. */
    int (*open_mount)(void *arg, const int32_t fsid[2], unsigned n);

    /* Reads what waits in the group, behind all that was read so far, until EAGAIN; false: nothing could be read (no
     * memory, a ceiling). No bytes and `drained`: there was nothing. done() is called once for each chunk with bytes.
     */
    bool (*read_more)(void *arg, struct fs_chunk *out);
    void (*done)(void *arg, const struct fs_chunk *chunk);

    void (*deliver)(void *arg, const struct fs_event *event);
    void (*lost)(void *arg, enum fs_loss kind, uint64_t count);

    /* The anchor's directory has no longer the anchor's path: it was removed, it or a directory above it was moved, or
     * nobody knows (records were lost). From this record on nothing below it is handed on through this anchor, until it
     * is removed and added anew. The directory's own MOVE_SELF is still to come. */
    void (*displaced)(void *arg, uint64_t id);

    /* The kernel is asked to report nothing of the files in a directory, and to report it again. Both false: it
     * refuses, for the moment at least; what is not there any more is no failure of heed(). At most so many directories
     * at once; 0, or ignore null: none. A directory may be asked for again that is ignored. */
    bool (*ignore)(void *arg, const struct fs_key *directory);
    bool (*heed)(void *arg, const struct fs_key *directory);
    uint32_t most_ignored;

    /* Where the kernel is asked; null: fs_kernel of fs_ask.h. */
    const struct fs_asks *asks;

    bool ordered; /* deliver() looks at `delete_first`, for which the disk has to be asked; else it is never set */
};

struct fs_counts {
    uint64_t records;     /* taken */
    uint64_t asked;       /* questions to the kernel where a directory lies */
    uint64_t asked_files; /* ... and whether a file is there */
    uint64_t lost[FS_LOSSES];
    uint32_t directories; /* in the table now */
    uint32_t limit;
    uint32_t anchors;
    uint32_t ignored; /* directories */
};

/* An engine whose table holds `limit` directories; those at and above anchors stay, and may be more. Records of process
 * `own_pid` are learnt from and not handed on. Null: no memory. fs_engine_free() accepts null. */
struct fs_engine *fs_engine_new(uint32_t limit, int32_t own_pid, const struct fs_world *world);
void fs_engine_free(struct fs_engine *engine);

struct fs_anchor {
    struct fs_key key;
    const char *path; /* absolute, no link in it, no "/" at its end ("/" itself may be); copied */
    uint64_t id;      /* the caller's; need not be unique */
    int fd;           /* an open directory with that key (not O_PATH), used during the call */
    bool recursive;   /* false: only what happens to the directory and its direct entries */
};

/*
 * Adds an anchor. The file system must have been marked, and what waited must have been taken, before the anchor's path
 * was opened: what was read later but happened before is found out. Records that are read meanwhile are handed on.
 * 0; FMON_ENOMEM; FMON_ENOENT: the directory is not at that path any more; FMON_ENOTSUP: it is to be recursive, and the
 * kernel does not say where it lies; -EAGAIN: directories above it were moved meanwhile: open the path again.
 */
int fs_engine_add(struct fs_engine *engine, const struct fs_anchor *anchor);

struct fs_joint {
    struct fs_key root; /* the root of the mount */
    struct fs_key in;   /* the directory that it is mounted in, on any file system */
    const char *name;   /* the mount point's, 1..NAME_MAX bytes; copied */
    uint64_t id;
};

/* Adds a joint. 0; FMON_ENOMEM. */
int fs_engine_join(struct fs_engine *engine, const struct fs_joint *joint);

/* Removes all anchors and joints with that id; how many there were. */
unsigned fs_engine_remove(struct fs_engine *engine, uint64_t id);

/* Forgets the directories of a file system that was unmounted. Its anchors stay, until they are removed. */
void fs_engine_forget(struct fs_engine *engine, const int32_t fsid[2]);

/*
 * Takes a batch of records. They are copied nowhere and may be overwritten after the call. With `drained`, the group
 * had nothing more when they were read. True: records that were read meanwhile (read_more) wait: call again, with no
 * bytes and `drained` false, before anything else is read, when others have had their turn with the lock.
 */
bool fs_engine_take(struct fs_engine *engine, const char *bytes, size_t size, bool drained);

/* Forgets where all directories lie and asks for those at and above anchors anew: after records were thrown away. */
void fs_engine_flush(struct fs_engine *engine);

void fs_engine_counts(const struct fs_engine *engine, struct fs_counts *out);

#endif
