/*
 * mount.h: the writable, device-backed mounts of the system, read from /proc/self/mountinfo.
 */
#ifndef FMON_MOUNT_H
#define FMON_MOUNT_H

#include <cstdint>

#include "fmon.h"

extern "C" {

struct mount_entry {
    char *fs, *dev, *mount; /* type, source, mount point; owned, as the file spells them (octal escapes kept) */
    uint32_t flags;         /* known mount options */
    uint32_t block_dev;
    int32_t mnt_id;
    list_head watches; /* of struct mount_link */
    list_head link;
    uint32_t stale; /* not seen by the read under way */
};

/* A mount watch that holds a mark on a mount. */
struct mount_link {
    list_head link;
    struct watch *w;
};

/* Reads the table again into `list` (initialised by the caller, or as an earlier read left it). -1: cannot be opened,
 * the list stays. */
FMON_API int get_mountinfo(list_head *list);

/* Reads fmlnx.mounts again and returns its mount ids in *out (freed by the caller) and their number. */
FMON_API int get_global_mnt(int32_t **out);

/* Mount point of that id in the list read last, or null. Valid until the next read. */
FMON_API const char *search_mnt(int32_t mnt_id);

/* (Hidden.) Parses one line of the file into `list`. Cuts the text up. */
void mount_parse_line(char *text, list_head *list);

/* (Hidden.) Frees every entry and its links, and forgets the list. */
void mount_release(list_head *list);

} /* extern "C" */

#endif
