/*
 * Paths are built from the last name to the first, into the end of the buffer, since only the way up is known.
 */
#include "dcache.h"

#include <cstdlib>
#include <cstring>

namespace
{

/* Shared by all callers, which hold the monitor lock: a path lives until the next one is built. */
char path_buffer[DCACHE_PATH_MAX];

/* Null for null, so that an overflow passes through. */
char *path_copy(const char *path)
{
    if (!path)
        return nullptr;
    const size_t size = strlen(path) + 1;
    char *copy = static_cast<char *>(malloc(size));
    if (copy)
        memcpy(copy, path, size);
    return copy;
}

}  // namespace

char *_dentry_path(struct dentry *d, const char *suffix)
{
    int p = DCACHE_PATH_MAX - 1;
    path_buffer[p] = '\0';
    if (suffix) {
        const size_t len = strlen(suffix);
        if (len > DCACHE_PATH_MAX - 2) /* one byte for the NUL, one for the root */
            return nullptr;
        p -= static_cast<int>(len);
        memcpy(path_buffer + p, suffix, len);
    }
    for (; d; d = d->parent) {
        /* Room for a separator is asked for even where none is written, so that 1022 bytes is the longest path. */
        if (p - d->len - 1 < 0)
            return nullptr;
        if (path_buffer[p] != '\0' && d->parent)
            path_buffer[--p] = '/'; /* the root's name is itself the separator of what follows it */
        p -= d->len;
        memcpy(path_buffer + p, dentry_name(d), d->len);
    }
    return path_buffer + p;
}

char *dentry_path_null(struct dentry *d) { return _dentry_path(d, nullptr); }

const char *dentry_path(struct dentry *d)
{
    const char *path = dentry_path_null(d);
    return path ? path : "(path overflow)";
}

char *dentry_path_dup(struct dentry *d) { return path_copy(dentry_path_null(d)); }

char *dentry_sub_path_dup(struct dentry *d, const char *name) { return path_copy(_dentry_path(d, name)); }
