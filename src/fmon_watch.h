/*
 * fmon_watch.h: what the sources of the watch registry share. The registry's functions for clients and for the backend
 * are in fmon.h.
 *
 * Sources: fmon_watch.cpp (records, checks, adding, deleting), fmon_wildcard.cpp (patterns), fmon_tbd.cpp (waiting
 * watches).
 */
#ifndef FMON_FMON_WATCH_H
#define FMON_FMON_WATCH_H

#include <cstdint>

#include "fmon.h"

/* What a client asks for; max_depth loses its upper 16 bits in the record. */
struct watch_request {
    uint32_t mask, flags, max_depth, max_subdirs;
};

/* An unlinked record for the canonical form of `path` (outside container mode, and where there is one; else for `path`
 * as it is). Null: out of memory. */
struct watch *watch_new(int instance, const char *path, const struct watch_request &);

/* Frees a record that is in no list. */
void watch_free(struct watch *);

/* Takes a watch out of its instance's list and frees it; it must not be attached or waiting. */
void watch_drop(struct watch *);

/* Takes an attached watch from the backend; the result only serves to be logged. Afterwards its attachment link is in
 * no list, whatever the backend did. */
int watch_detach(struct watch *);

/* 0 when there is an object of the flags' type at the path, which is not followed when it is a link; FMON_ENOENT. */
int watch_exists(const char *path, uint32_t flags);

/* Makes a dynamic watch for every path that the pattern matches and that has none yet. */
void watch_expand(struct watch *pattern);

/* Deletes the dynamic watches that the pattern made. */
void watch_delete_dynamic(struct watch *pattern);

#endif
