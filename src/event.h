/*
 * event.h: the vocabulary of event kinds and watch flags, and the table of pending event records.
 *
 * Every raw event of every backend passes through event_process(): it is merged into the live record of the same path
 * and process, or makes a new one; the record is offered to the watches on the way from its dentry to the root and
 * appended to the queue of each instance that wants it. A record lives as long as an instance holds it (`ref`) or
 * holds it back (`pending`). Called under the monitor lock only.
 *
 * Sources: event_map.cpp (vocabulary), event.cpp (table, merge), event_index.cpp (lookup), event_dispatch.cpp (match
 * and delivery).
 */
#ifndef FMON_EVENT_H
#define FMON_EVENT_H

#include <cstdint>

#include "fmon.h"

extern "C" {

/* A name and the bits that it stands for. */
struct bits_row {
    const char *name;
    uint32_t mask;
};

enum { EVENT_MAP_ROWS = 14, FLAGS_MAP_ROWS = 11 };
extern const struct bits_row event_map[EVENT_MAP_ROWS];
extern const struct bits_row flags_map[FLAGS_MAP_ROWS];

/* Writes the names of `mask` in table order, joined by ",", into buf and returns buf. A row is named when all of its
 * bits are still unnamed; bits that no row names are dropped. */
FMON_API char *bits_str(uint32_t mask, char *buf, int size, const struct bits_row *table, int rows);

/* The OR of the rows that the comma-separated text names. Cuts the text up. */
FMON_API uint32_t bits_mask(char *text, const struct bits_row *table, int rows);

/* Makes the table for that many records. FMON_ENOMEM. */
FMON_API int event_init(struct fmon *, int32_t max_events);

/* Frees the table, not the records. */
FMON_API void event_deinit(struct fmon *);

/*
 * Takes in one raw event: a dentry and a child's name (null: the directory itself), or no dentry and a full path in
 * `name`. `pid` 0: unknown. `source_fd` 0: a kernel probe. `mount_id`: the mount's number as text, or null.
 * 0, or FMON_ENOMEM (the event is lost).
 */
FMON_API int event_process(struct fmon *, struct dentry *, const char *name, uint32_t mask, uint32_t pid, int source_fd,
                           const char *mount_id);

/* Takes a record out of the table and frees it. */
FMON_API void event_free(struct fmon *, struct event *);

/* Frees a record that is in no table; null is accepted. */
FMON_API void _event_free(struct event *);

/* Writes all records to the log at level 4. */
FMON_API void event_dump(struct fmon *);

/* (Hidden; event_dispatch.cpp.) Offers the record to the watches that its dentry or path meets. `walk` is the path to
 * look the components up by when there is no dentry. Returns whether any watch was met, matching or not. */
bool event_offer_dentry(struct fmon *, struct event *, struct dentry *, const char *name);
bool event_offer_path(struct fmon *, struct event *, const char *walk);

/* (Hidden.) Whether event_offer_path would meet any watch. */
bool event_path_is_watched(struct fmon *, const char *walk);

/* (Hidden.) With the table full of records that are held back until their files are closed, nothing is read, so the
 * closes never come: hands the oldest on as they are until an eighth of the table will be free. Does nothing while an
 * instance has something queued. Returns how many were handed on or freed. */
int event_release_held(struct fmon *);

/* (Hidden.) Gives the record to every instance whose system-wide mask shares a bit with it. */
void event_dispatch_global(struct fmon *, struct event *);

} /* extern "C" */

#endif
