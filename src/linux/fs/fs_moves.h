/*
 * fs_moves.h: from where directories were moved since the group had nothing more to read. The kernel joins a record to
 * an equal one that still waits, which keeps its place: a rename that cannot be seen equals one that was. So where a
 * directory lies is in doubt while it lies where one of those moved it from.
 */
#ifndef FMON_FS_MOVES_H
#define FMON_FS_MOVES_H

#include "linux/fs/fs_record.h"

struct fs_moves {
    uint64_t *slots; /* hashes of (directory, parent, name); 0: free */
    uint32_t used;
    uint32_t number; /* of the last move, never set back */
    bool full;       /* or without memory: all is in doubt */
    bool crossed;    /* a directory was moved between inside and outside */
};

void fs_moves_add(struct fs_moves *moves, const struct fs_key *directory, const struct fs_entry *from);
bool fs_moves_has(const struct fs_moves *moves, const struct fs_key *directory, const struct fs_entry *at);
void fs_moves_clear(struct fs_moves *moves);
void fs_moves_release(struct fs_moves *moves);

#endif
