/*
 * record.h: the kernel's event records, cut out of a read buffer. Pure functions over (buffer, size): a record is
 * yielded only when its header and its payload lie inside; anything else ends the buffer.
 */
#ifndef FMON_RECORD_H
#define FMON_RECORD_H

#include <cstddef>
#include <cstdint>

struct raw_inotify {
    int32_t wd;
    uint32_t mask;
    uint32_t cookie;  /* the same in both halves of a rename; 0: it is none */
    uint32_t len;     /* bytes of name, padding included */
    const char *name; /* len bytes, not necessarily terminated */
    size_t size;      /* the whole record */
};

struct raw_fanotify {
    uint32_t event_len;
    uint8_t vers;
    uint8_t reserved;
    uint16_t metadata_len;
    uint64_t mask;
    int32_t fd; /* -1: overflow */
    int32_t pid;
};
static_assert(sizeof(struct raw_fanotify) == 24, "the kernel's record, version 3");
static_assert(offsetof(struct raw_fanotify, mask) == 8 && offsetof(struct raw_fanotify, pid) == 20,
              "the kernel's record, version 3");

enum { INOTIFY_HEADER = 16, FANOTIFY_HEADER = 24, FANOTIFY_VERSION = 3 };

/* The record at `at`; false at the end, and for one that is cut or reaches past the end. */
bool inotify_record_at(const char *buffer, size_t size, size_t at, struct raw_inotify *out);
bool fanotify_record_at(const char *buffer, size_t size, size_t at, struct raw_fanotify *out);

#endif
