/*
 * fs_source.h: directory events of whole file systems (fmon.ini's fs_events): one mark a file system stands for marks
 * on all of its directories, and a record names the process and, by handles, the place.
 *
 * A thread of its own takes the records from the kernel (fs_reader.h), finds the paths (fs_engine.h) and puts what
 * happened below a watch into a queue (fs_queue.h), whose descriptor is one of the monitor's. A watch that it serves
 * has the flag FMON_LINUX_FS, and nothing of other marks but inotify on its root, for its own end. Mounts below the
 * root of a recursive watch are marked too (fs_below.h); what cannot be marked has the marks of before.
 *
 * Everything is called under the monitor lock, which is taken before the lock of the source.
 *
 * Sources: fs_source.cpp (start, stop, what the monitor thread does), fs_pass.cpp (records on their way into the
 * queue), fs_root.cpp (watches), fs_system.cpp (marked file systems), fs_view.cpp
 * (looks at mounts), fs_below.cpp (mounts below watches).
 */
#ifndef FMON_FS_SOURCE_H
#define FMON_FS_SOURCE_H

#include <cstdint>

#include "fmon.h"

/* Starts the source where fmon.ini asks for it; what cannot be had is told in the status, and nothing is served then.
 * Returns the descriptor that says that events wait, or -1. */
int fs_source_start(void);

/* Ends it: its thread, its marks, its memory. The watches that were served have lost their place. */
void fs_source_stop(void);

/* Whether it runs. */
bool fs_source_ready(void);

/* Whether the source would try to serve the watch. */
bool fs_source_takes(const struct watch *w);

/* Tries to serve the watch, whose path is opened by `open_path`. True: it carries FMON_LINUX_FS. Else the reason is in
 * the status. */
bool fs_source_add(struct watch *w, const char *open_path);

/* The mounts below a watch that was added and has its place in the tree. */
void fs_source_add_below(struct watch *w);

/* Lets go of a served watch, which loses its flag. Nothing happens to others. */
void fs_source_remove(struct watch *w);

/* Hands on everything that happened before this call. To be called before a served watch loses its place. */
void fs_source_catch_up(struct fmon *monitor);

/* The monitor thread's turn: events of the queue; and in each turn, watches whose directory was moved, mounts that came
 * or went, and mounts that could not be looked at before. */
void fs_source_read(struct fmon *monitor, fmon_event_cb callback);
void fs_source_heed_news(struct fmon *monitor, uint32_t now_ms);

/* System-wide events of these kinds, all that are wanted by anybody; 0: none. -1: the source is off, or serves no file
 * system. */
int fs_source_global(uint32_t kinds);

/* Looks at the mounts anew. */
void fs_source_look_at_mounts(void);

/* Writes the source of each watch, marked file systems, the table and what waits to the log, at level 4; nothing where
 * the source is not asked for. */
void fs_source_dump(void);

/* What the status tells of the source now, beside what is counted in fmon_account. */
void fs_source_status(struct fmon_status *out);

#endif
