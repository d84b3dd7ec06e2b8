/*
 * event_path.h: the path of a fanotify event's file.
 *
 * The kernel gives an open descriptor and says, of that, the path under which the file was reached: in the mount
 * namespace of whoever did it, where anybody may mount anything under any name. A hardened monitor on a host therefore
 * compares: the path is the event's only when the event's inode is there. What differs is looked for below the
 * directories that are watched, by inode.
 */
#ifndef FMON_EVENT_PATH_H
#define FMON_EVENT_PATH_H

#include <cstdint>

enum event_path {
    EVENT_PATH_NONE,  /* the file has none (any more) */
    EVENT_PATH_WHOLE, /* also one that ends in the kernel's " (deleted)", of a file that has other names */
    EVENT_PATH_CUT,   /* it has 1023 bytes or more; these are the first */
    EVENT_PATH_OTHER  /* another file is there, or none; this is what the kernel said */
};

/* Writes the path of the event's file, at most 1023 bytes, into `path` (DCACHE_PATH_MAX). `marked`: the event is of a
 * mark on a directory or file, not on a whole mount. Under the monitor lock. */
enum event_path event_path_find(int fd, uint32_t pid, bool marked, char *path);

/* FMON_DIR_*: what the latest descriptor that was looked at, and was there, is. */
uint32_t event_path_dir(void);

#endif
