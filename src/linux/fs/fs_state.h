/*
 * fs_state.h: the engine's inside, shared by its sources: fs_engine.cpp (its life, the turn over the records),
 * fs_anchor.cpp (anchors and joints), fs_resolve.cpp (where a directory lies), fs_path.cpp (the paths of an entry),
 * fs_tell.cpp (what is handed on), fs_entries.cpp (what entries are on the disk), fs_learn.cpp (what records say of
 * directories), fs_loud.cpp (directories outside that the kernel is asked to be silent of).
 */
#ifndef FMON_FS_STATE_H
#define FMON_FS_STATE_H

#include "linux/fs/fs_ask.h"
#include "linux/fs/fs_batch.h"
#include "linux/fs/fs_engine.h"
#include "linux/fs/fs_moves.h"
#include "linux/fs/fs_record.h"
#include "linux/fs/fs_table.h"

/* An anchor, or a joint, which has `in`. */
struct fs_tie {
    struct fs_tie *next; /* on the same directory */
    struct fs_tie *next_of_all;
    struct fs_node *node;
    struct fs_node *in;
    char *text; /* terminated: the anchor's path, the joint's name */
    uint32_t len;
    uint32_t depth; /* directories above the anchor up to the root of its mount */
    uint64_t id;
    bool recursive;
    bool displaced;
    bool by_itself; /* displaced: the anchor's directory itself was moved or removed */
};

/* Paths, each terminated, one behind the other. */
struct fs_paths {
    char *bytes;
    size_t used, room;
    bool inside;   /* a recursive anchor lies at the entry's directory or above */
    bool failed;   /* not all could be found out */
    bool gone;     /* ... since the directory is removed */
    bool unsure;   /* moves may be hidden: it may have been elsewhere */
    bool missed;   /* ... and inside, where it seems to be outside; said once for each directory that was moved */
    bool too_long; /* one that was found is longer than FS_PATH_MAX, and left out */
};

/* Directories that are open for questions about their entries, until the engine's function returns. */
enum { FS_OPEN_DIRECTORIES = 16, FS_NAME_BITS = 8192 };
struct fs_open_directory {
    struct fs_node *node; /* pinned; null: free */
    int fd;
    uint32_t listed;                   /* the number of the first chunk that was read after it was; 0: it was not */
    uint64_t names[FS_NAME_BITS / 64]; /* a bit for each name's hash */
};

/* Directories outside of whose files the kernel reports nothing. */
struct fs_loud {
    struct fs_node **all; /* pinned */
    uint32_t count, limit;
    uint32_t next;       /* whose place is given to another when all are taken */
    uint32_t generation; /* in which all of them lay outside */
    bool retry;          /* one cannot be heard again, for the moment */
};

struct fs_engine {
    struct fs_world world;
    struct fs_table table;
    struct fs_batch batch;
    struct fs_moves moves;
    struct fs_paths paths; /* of the entry that is told now */
    struct fs_loud loud;
    struct fs_tie *ties;
    struct fs_counts counts;
    struct fs_open_directory open[FS_OPEN_DIRECTORIES];
    uint32_t generation;       /* of what is said to lie outside; from 1 */
    uint32_t epoch;            /* from 1; nothing is joined to records of an earlier one */
    uint32_t mount_generation; /* of what is said to be a mount's root; from 1 */
    uint32_t shallow;          /* anchors that are not recursive */
    uint32_t displacements;    /* directories at and above anchors that were moved or removed */
    uint32_t renames;          /* records of renames; 0 is passed over */
    int32_t own_pid;
    bool forget; /* records could not be read: the table is no longer true */
};

/* fs_engine.cpp */
void fs_engine_lost(struct fs_engine *engine, enum fs_loss kind);
void fs_engine_process_all(struct fs_engine *engine); /* what waits, all of it */
bool fs_engine_read_more(struct fs_engine *engine);   /* false: it is not certain that nothing waits in the group */

/* fs_anchor.cpp */
void fs_displace_above(struct fs_engine *engine, struct fs_node *moved, bool removed);
void fs_displace(struct fs_engine *engine, struct fs_tie *anchor, bool by_itself);

/* fs_resolve.cpp: finds out where a directory lay at the current record, or that nothing can be seen above it. False:
 * it cannot be found out. The node has to be pinned, or somebody's parent. */
bool fs_resolve(struct fs_engine *engine, struct fs_node *node);
/* Places a directory at an entry. False: no memory; then it is not known where it lies. */
bool fs_place_at(struct fs_engine *engine, struct fs_node *node, const struct fs_entry *entry);
bool fs_place_asked(struct fs_engine *engine, struct fs_node *node, const struct fs_place *place);
inline bool fs_is_top(const struct fs_engine *engine, const struct fs_node *node)
{
    return node->top == engine->mount_generation;
}

/* fs_path.cpp: fills engine->paths with the paths of an entry (name_len 0: of the directory itself) at the current
 * record; `ended`: also those of anchors on the directory that were displaced because it went itself. */
void fs_find_paths(struct fs_engine *engine, struct fs_node *directory, const char *name, uint32_t name_len,
                   bool ended);

enum fs_side { FS_SIDE_NONE, FS_SIDE_INSIDE, FS_SIDE_OUTSIDE, FS_SIDE_UNKNOWN };

/* fs_tell.cpp: hands on what a record says; the sides of its entries. */
void fs_tell(struct fs_engine *engine, const struct fs_record *record, enum fs_side *from, enum fs_side *to);

/* fs_entries.cpp: whether the entry is there and has that key, on the disk; with key null, whether it is a whiteout.
 * The directory is pinned. */
bool fs_entry_is(struct fs_engine *engine, struct fs_node *node, const struct fs_entry *entry,
                 const struct fs_key *key);
void fs_close_directories(struct fs_engine *engine);

/* fs_loud.cpp */
bool fs_loud_init(struct fs_engine *engine); /* false: no memory */
/* A record of a file in a directory that lies outside. */
void fs_loud_note(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record);
/* What lay outside may lie inside: hears those again that do not certainly lie outside, and counts what that loses:
 * what happened in a directory that was moved, from then on; and what happens where the kernel cannot be told now, from
 * the beginning, and once more when it can. */
enum fs_loud_why { FS_LOUD_MOVED, FS_LOUD_NEW_TIE, FS_LOUD_RETRY };
void fs_loud_check(struct fs_engine *engine, enum fs_loud_why why);
/* Hears those of a file system again (-1: of all), which are no loss. */
void fs_loud_release(struct fs_engine *engine, int system);

/* fs_learn.cpp: what a record says of directories. */
void fs_learn(struct fs_engine *engine, const struct fs_record *record, enum fs_side from, enum fs_side to);

#endif
