/*
 * fmon_status.h: what the monitor placed and was refused, counted where it happens, for _orx_fmon_status.
 *
 * Everything is called under the monitor lock, or while nobody else can call (start and end).
 */
#ifndef FMON_FMON_STATUS_H
#define FMON_FMON_STATUS_H

#include <cstdint>

#include "orx_fmon.h"

struct fmon_account {
    uint64_t watches, refusals;
    struct fmon_left_out left_out;
    struct fmon_refusal last_refusal;
    struct fmon_source monitor, inotify, fanotify, mounts, inotify_probe, file_probes;
    struct fmon_fs_status fs; /* source, watches, fallbacks, left_out, last_fallback: the rest is asked of the source */
    fmon_mark_cb mark_cb;     /* null: nobody is told */
    bool counted;             /* the attempt under way is among those left out */
};
extern struct fmon_account fmon_account; /* hidden */

/* ---- directories ---- */

/* The next directory's turn begins: of what is refused until the next one's, the first counts. */
inline void account_attempt(void) { fmon_account.counted = false; }

/* `path`: null or empty: not known. */
void account_refused(uint32_t reason, uint32_t step, int32_t code, int32_t error, const char *path);

/* The same, where the system gave the reason. */
void account_system_refused(uint32_t step, int32_t code, int32_t error, const char *path);

/* `path` carries an inotify watch that is new. */
void account_marked(const char *path);

/* ---- sources ---- */

/* Other marks are used for what is at `path`: FMON_FALLBACK_*. */
void account_fallback(uint32_t reason, int32_t error, const char *path);

/* No source serves the mount. */
void account_left_out(uint32_t reason, int32_t error, const char *path);

/* A new start: nothing is known. */
void account_begin(void);

void account_source_on(struct fmon_source *);

/* Why the source cannot be had, or does not do all; the first reason stays. The state stays as it is. `why` may be
 * null. */
void account_trouble(struct fmon_source *, uint32_t reason, int32_t code, int32_t error, const char *why);

/* Refused, for what was told before or, where nothing was, for this. */
void account_source_refused(struct fmon_source *, uint32_t reason, int32_t code, int32_t error, const char *why);

/* The monitor cannot start, or has ended: what failed. */
void account_monitor_ended(const char *what, int32_t code, int32_t error);

/* No source is on any more. */
void account_sources_off(void);

#endif
