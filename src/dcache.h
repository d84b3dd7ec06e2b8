/*
 * dcache.h: the directory cache, an in-memory mirror of the watched part of the file tree.
 *
 * One dentry per directory: a name, its parent, its children, and an owner area for the cache's users. Paths are not
 * stored; they are built from the chain of parents. Lookup is by (parent, name) through one hash table whose size
 * moves along a fixed ladder. Called under the monitor lock only.
 *
 * Sources: dcache.cpp (lookup, creation, deletion), dcache_hash.cpp (name hash), dcache_path.cpp (paths),
 * dcache_traverse.cpp, dcache_container.cpp (container paths).
 */
#ifndef FMON_DCACHE_H
#define FMON_DCACHE_H

#include <cstdint>

#include "orx_fmon.h"

extern "C" {

enum {
    DENTRY_NAME_INLINE = 32, /* names below 30 bytes lie in the dentry */
    DENTRY_NAME_LIMIT = 30,
    DCACHE_PATH_MAX = 1024, /* size of the shared path buffer, and limit of a component */
    DCACHE_DATA_SIZE = 32,  /* user data of a traversal or iteration level */
    DCACHE_MAX_ENTRIES = 2097152
};

/* A directory. Zero-filled when made, never moved. */
struct dentry {
    union {
        char in[DENTRY_NAME_INLINE]; /* len < 30: the name, terminated */
        char *ptr;                   /* else an allocated copy, terminated */
    } name;
    uint16_t len;
    uint16_t owner_bits;   /* the users', too */
    struct dentry *parent; /* null: the root */
    hlink hash;
    list_head sibling, children;
    alignas(8) unsigned char owner[32]; /* the users' (see owner_of in fmon.h) */
};

inline const char *dentry_name(const struct dentry *d) { return d->len < DENTRY_NAME_LIMIT ? d->name.in : d->name.ptr; }

struct dcache {
    struct dentry *root; /* "/", not hashed, not counted */
    int32_t size_index;  /* rung of the bucket ladder */
    int32_t max_entries;
    uint32_t count;
    hlink **buckets;
    void (*init_hook)(struct dentry *); /* runs for every dentry made, the root included; may be null */
};

struct dcache_frame {
    struct dentry *d;
    unsigned char data[DCACHE_DATA_SIZE];
};

/* A walk of a cached subtree. `state` describes the dentry last returned: */
enum {
    DCACHE_ENTER = 0, /* has children, is entered by the next call; set non-zero to prune */
    DCACHE_LEAF = 1,  /* has no children */
    DCACHE_LEAVE = 2  /* second visit, after its children */
};
struct dcache_traverse {
    list_head stack;
    struct dcache_frame cur; /* the directory whose children are being returned, and its block */
    struct dcache_frame ret; /* the dentry last returned, and its block */
    list_head *cursor;       /* next sibling; null: not set; the parent's `children` head: at the end */
    int32_t state;
};

/* ---- the cache ---- */

/* 0, or -1: max_entries outside 1..DCACHE_MAX_ENTRIES, or out of memory. */
FMON_API int dcache_init(struct dcache *, int32_t max_entries, void (*init_hook)(struct dentry *));

/* Frees every dentry. Owner areas must have been released. */
FMON_API void dcache_destroy(struct dcache *);

/* The dentry of an absolute path, or null. The walk ends at the first empty component: "/a//b" and "/a/" give /a. The
 * first character is skipped whatever it is. */
FMON_API struct dentry *dcache_find(struct dcache *, const char *path);

/* The same, making what is missing. Null when the cache is full, memory runs out or a component is longer than 1024
 * bytes; what the call made is gone again then. */
FMON_API struct dentry *dcache_add(struct dcache *, const char *path);

FMON_API struct dentry *dcache_add_sub(struct dcache *, struct dentry *parent, const char *name);
FMON_API struct dentry *dcache_find_sub(struct dcache *, struct dentry *parent, const char *name);
/* `name` holds at least len bytes and is followed by a NUL or by more of the text. */
FMON_API struct dentry *dcache_find_sub2(struct dcache *, struct dentry *parent, const char *name, int len);

/* Frees a dentry without children. 0 also for null and the root; -1: it has children and stays, or it is gone but the
 * table could not shrink. Either way do not touch it again. */
FMON_API int dcache_del(struct dcache *, struct dentry *);

FMON_API int32_t dcache_buckets(struct dcache *);

/* (Hidden.) Cuts the next component out of the path at *pos (skipping one character first). Returns its length, 0 at
 * the end (also for an empty component); *name is its first byte and *pos moves behind it. */
int path_component(const char **pos, const char **name);

/* The kernel's 64-bit word-at-a-time name hash, except that the eighth byte of each full word does not count. */
FMON_API uint32_t full_name_hash(uint64_t salt, const char *name, uint32_t len);

/* ---- paths: at most 1022 bytes ---- */

/* Into one shared buffer, valid until the next call of any of these: null when the path is too long; dentry_path gives
 * "(path overflow)" instead, for log lines. `suffix` may be null. */
FMON_API char *_dentry_path(struct dentry *, const char *suffix);
FMON_API char *dentry_path_null(struct dentry *);
FMON_API const char *dentry_path(struct dentry *);

/* Copies, freed by the caller with free(); null: too long or out of memory. A null name means the dentry itself. */
FMON_API char *dentry_path_dup(struct dentry *);
FMON_API char *dentry_sub_path_dup(struct dentry *, const char *name);

/* ---- traversal: depth-first; unless it is about to be entered, the dentry just returned may be deleted ---- */

/* `data`: DCACHE_DATA_SIZE bytes for the start level, or null for zeros. `start` itself is never returned. */
FMON_API void dcache_traverse_start(struct dcache_traverse *, struct dentry *start, const void *data);
FMON_API struct dentry *dcache_traverse_next_safe(struct dcache_traverse *);
FMON_API void dcache_traverse_end(struct dcache_traverse *); /* needed when the walk is left early */

/* ---- containers ---- */

/* Path of `path` as seen from outside the container that `container_id` names: "/proc/PID/root" + path, or "/rootfs" +
 * path with the label "host". Does nothing when an argument is missing or the id is empty. */
FMON_API void container_path_get(const char *path, const char *container_id, const char **source, char *out,
                                 int out_size);

/* (Hidden.) A read pass begins or ends. Within one, the library is asked once only for a mount that it has no container
 * for. */
void container_pass(bool begins);

} /* extern "C" */

#endif
