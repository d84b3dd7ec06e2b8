/*
 * fs_key.h: what a directory or file is called by the kernel's records of whole file systems: the file system's id and
 * a handle, which is a type and up to 128 bytes that mean nothing to anybody but the file system.
 */
#ifndef FMON_FS_KEY_H
#define FMON_FS_KEY_H

#include <cstdint>
#include <cstring>

enum { FS_HANDLE_MAX = 128 }; /* bytes; the kernel's own limit */

/* Borrowed: the bytes are a record's, a node's or a store's. Needs no alignment. */
struct fs_key {
    int32_t fsid[2];
    int32_t type;
    uint32_t len; /* 1..FS_HANDLE_MAX */
    const char *bytes;
};

/* A key with bytes of its own. Not to be copied by assignment: fs_key_store(). */
struct fs_stored_key {
    struct fs_key key;
    char bytes[FS_HANDLE_MAX];
};

inline bool fs_same_fsid(const int32_t a[2], const int32_t b[2]) { return a[0] == b[0] && a[1] == b[1]; }

inline bool fs_key_equal(const struct fs_key *a, const struct fs_key *b)
{
    return a->len == b->len && a->type == b->type && fs_same_fsid(a->fsid, b->fsid) &&
           memcmp(a->bytes, b->bytes, a->len) == 0;
}

inline void fs_key_store(struct fs_stored_key *out, const struct fs_key *key)
{
    out->key = *key;
    memcpy(out->bytes, key->bytes, key->len);
    out->key.bytes = out->bytes;
}

#endif
