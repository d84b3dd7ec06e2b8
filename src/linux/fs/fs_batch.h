/*
 * fs_batch.h: the records that wait, in the order in which they were read, and a way to look ahead: the first of them
 * that says where a directory lies.
 */
#ifndef FMON_FS_BATCH_H
#define FMON_FS_BATCH_H

#include "linux/fs/fs_engine.h"
#include "linux/fs/fs_record.h"

struct fs_batch_chunk {
    struct fs_chunk chunk;
    bool borrowed; /* the caller's: not handed back by done() */
};

struct fs_ahead_entry {
    uint32_t hash, next; /* of the same bucket, in the order of position */
    uint64_t position;
};

enum { FS_AHEAD_BUCKETS = 1024 };

/* An index of the records that move, make or remove directories. Made when something is looked for. */
struct fs_ahead {
    struct fs_ahead_entry *entries;
    uint32_t count, room;
    uint32_t heads[FS_AHEAD_BUCKETS], tails[FS_AHEAD_BUCKETS]; /* index + 1; 0: none */
    uint64_t scanned;                                          /* up to here records are in the index */
    uint64_t anonymous; /* after the last record that moves a directory and does not say which; 0: none */
    bool broken;        /* there was no memory for all */
};

/* A position is the chunk's number in the upper half, the place in the chunk in the lower one. */
struct fs_batch {
    struct fs_batch_chunk *chunks;
    uint32_t count, room;
    uint32_t number; /* of chunks[0] */
    uint32_t at;     /* the current record's place in chunks[0] */
    struct fs_ahead ahead;
};

void fs_batch_init(struct fs_batch *batch);
void fs_batch_release(struct fs_batch *batch); /* chunks are to be gone */

/* False: no memory. Chunks are at most 4 GiB; larger ones are refused. */
bool fs_batch_push(struct fs_batch *batch, const struct fs_chunk *chunk, bool borrowed);

/* Removes the first chunk, which is handed out. */
struct fs_batch_chunk fs_batch_pop(struct fs_batch *batch);

enum fs_ahead_result {
    FS_AHEAD_NONE,
    FS_AHEAD_FOUND,
    FS_AHEAD_BROKEN /* there was no memory for looking */
};

/* The first record, from the current one on, that moves, makes or removes the directory. */
enum fs_ahead_result fs_batch_ahead(struct fs_batch *batch, const struct fs_key *key, struct fs_record *out);

/* The position of that record; FS_NEVER: there is none, FS_AT_ONCE: there was no memory for looking. */
constexpr uint64_t FS_NEVER = UINT64_MAX;
constexpr uint64_t FS_AT_ONCE = 0;
uint64_t fs_batch_next_move(struct fs_batch *batch, const struct fs_key *key);

/* Whether a record from the current one on moves or removes a directory and does not say which. To be called after
 * fs_batch_ahead(). */
bool fs_batch_anonymous(const struct fs_batch *batch);

/* What happens to directories: whether the record is of that kind. */
bool fs_moves_directory(const struct fs_record *record);

#endif
