/*
 * seq.h: the table from inotify watch descriptors to what they watch. A sorted array; deleted entries stay as holes
 * until 256 of them are swept out at once.
 */
#ifndef FMON_SEQ_H
#define FMON_SEQ_H

#include <cstdint>

#include "orx_fmon.h"

extern "C" {

enum {
    SEQ_POISON = 256, /* value: the watch was removed by us, its IN_IGNORED is still to come */
    SEQ_CHUNK = 128,  /* entries by which the array grows */
    SEQ_SWEEP = 256   /* deletions that start a sweep */
};

struct seq_entry {
    int32_t wd;
    uint64_t value; /* a dentry's address, 0 (hole) or SEQ_POISON */
};

struct seq_table {
    int32_t count; /* holes included */
    struct seq_entry *entries;
    int32_t deleted; /* since the last sweep */
};

FMON_API uint64_t seq_get(struct seq_table *, int32_t wd);            /* 0: absent */
FMON_API int seq_set(struct seq_table *, int32_t wd, uint64_t value); /* -1: the array could not grow */
FMON_API int seq_del(struct seq_table *, int32_t wd);                 /* -1: absent */

/* (Hidden.) Entries that are neither holes nor poisoned: counted when somebody asks, since agents may keep tables of
 * their own, whose structure has no room for a counter. */
uint64_t seq_live(const struct seq_table *);

} /* extern "C" */

#endif
