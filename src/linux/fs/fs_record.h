/*
 * fs_record.h: records of a fanotify group that reports directories by handle and entries by name, cut out of a read
 * buffer. A pure function over (buffer, size): what it yields lies inside of the buffer.
 */
#ifndef FMON_FS_RECORD_H
#define FMON_FS_RECORD_H

#include <cstddef>
#include <cstdint>

#include "linux/fs/fs_key.h"

/* What the C library's headers may not know yet. */
enum : uint64_t {
    FS_MASK_OVERFLOW = 0x4000,
    FS_MASK_RENAME = 0x10000000,
    FS_MASK_ONDIR = 0x40000000,
};

/* An entry of a directory. dir.len 0: the record names none. */
struct fs_entry {
    struct fs_key dir;
    const char *name;  /* name_len bytes, none of them "/" or NUL; not necessarily terminated */
    uint32_t name_len; /* 0: the directory itself */
};

struct fs_record {
    uint64_t mask;
    size_t size; /* the whole record */
    int32_t pid;
    struct fs_key object;  /* what it happened to; len 0: not said */
    struct fs_entry entry; /* of a rename: the old one */
    struct fs_entry to;    /* of a rename: the new one */
};

enum fs_cut {
    FS_CUT_RECORD,
    FS_CUT_SKIP, /* it lies inside of the buffer, and makes no sense; `size` is filled */
    FS_CUT_END   /* there is no whole record any more */
};

/* The record at `at`. Parts of information that nobody knows are passed over. */
enum fs_cut fs_record_at(const char *buffer, size_t size, size_t at, struct fs_record *out);

#endif
