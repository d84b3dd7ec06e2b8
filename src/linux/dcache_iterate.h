/*
 * dcache_iterate.h: walks a directory tree on disk into the cache, depth-first, one directory a call. Symbolic links
 * are never followed. One directory stream is open per level. Failures inside are logged and skip one entry or one
 * subtree; the walk itself does not fail.
 */
#ifndef FMON_DCACHE_ITERATE_H
#define FMON_DCACHE_ITERATE_H

#include <dirent.h>

#include "dcache.h"

extern "C" {

struct dcache_iterate_frame {
    DIR *dir;
    struct dentry *d;
    int32_t depth;
    unsigned char data[DCACHE_DATA_SIZE];
};

struct dcache_iterate {
    struct dcache *cache;
    int32_t
        subdir_count; /* compared with max_subdirs and never advanced: a negative max_subdirs ends the walk at once */
    int32_t max_depth, max_subdirs; /* 0: no limit */
    list_head stack;
    struct dcache_iterate_frame cur;     /* the directory being read: its block belongs to what is returned's parent */
    struct dcache_iterate_frame pending; /* the directory returned last: its block is inherited when it is entered */
};

/* 0, or -1 when the directory cannot be opened. `data`: DCACHE_DATA_SIZE bytes, required. */
FMON_API int dcache_iterate_start(struct dcache *, struct dentry *, struct dcache_iterate *, int32_t max_depth,
                                  int32_t max_subdirs, const void *data);
/* Null: over. The dentry is entered by the next call: it must still be there then. */
FMON_API struct dentry *dcache_iterate_next(struct dcache_iterate *);
FMON_API void dcache_iterate_stop(struct dcache_iterate *); /* after every successful start */

} /* extern "C" */

#endif
