/*
 * watch_count.h: the inotify watches that the monitor places: how many, and on what.
 *
 * The kernel lists a descriptor's watches in /proc, but for a tree of 100,000 directories that costs half as much as
 * placing them. So the command, as the program that the module is loaded into, has the C library's two functions
 * itself, counts, and passes each call on. Nothing else about them changes.
 */
#ifndef AGENT_WATCH_COUNT_H
#define AGENT_WATCH_COUNT_H

#include <cstdint>

namespace agent
{

/* Watches placed and not taken back; those that the kernel dropped because their directory went still count. */
uint64_t watches_placed();

/* `listener` is called with the path of each new watch that another thread than the caller's places, on that thread,
 * after the watch is in place. */
void listen_to_watches(void (*listener)(const char *path));

/* `listener` is called, on whatever thread it is, with the path of each directory that may not be watched (EACCES). */
void listen_to_refusals(void (*listener)(const char *path));

}  // namespace agent

#endif
