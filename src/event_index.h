/*
 * event_index.h: finds the record of a path and process, whatever the size of the event table.
 *
 * The table's chains are about 12 records long when it is full; walking one costs two cache misses a record, and
 * whoever can create files can make names that all fall into one chain. So no lookup walks them: behind the chain heads
 * lies a second, finer array of heads (about one record each), addressed by a hash with a secret key.
 */
#ifndef FMON_EVENT_INDEX_H
#define FMON_EVENT_INDEX_H

#include <cstddef>
#include <cstdint>

#include "fmon.h"

/* A record as the table allocates it; what clients see comes first. A stranger met on the way costs one cache line: the
 * tag and the first word of the link lie within 16 bytes of an allocation that is aligned to 16. */
struct event_record {
    struct event ev;
    uint32_t tag;     /* upper half of the key: tells strangers apart without touching their path */
    uint32_t from_fs; /* 1: of the source of whole file systems, whose records are its watches' alone */
    hlink index_link; /* linked exactly while ev.link is */
    list_head age;    /* so is this, in fmon.records */
    uint64_t move;    /* as in fmon_event_details */
    uint8_t dirs;     /* FMON_DIR_NO and FMON_DIR_YES of what was merged */
    uint8_t moved;    /* 1: a rename was merged */
};
static_assert(offsetof(struct event_record, ev) == 0, "an event is its record");
static_assert(sizeof(void *) != 8 || offsetof(struct event_record, tag) % 16 == 0, "tag and link share a cache line");

/* Chain heads and index in one block, all empty. Freed with free(); null: out of memory. */
hlink **event_table_new(int32_t hash_size);

uint64_t event_key(const char *path, uint32_t pid);

struct event *event_index_find(const struct fmon *, uint64_t key, const char *path, uint32_t pid, uint32_t from_fs = 0);
void event_index_add(const struct fmon *, struct event_record *, uint64_t key);

/* For a record whose ev.link is linked. */
void event_index_remove(struct event *);

#endif
