/*
 * fs_ask.h: what the kernel is asked about directories of whole file systems: which handle a path has, and where the
 * directory with a handle lies now.
 */
#ifndef FMON_FS_ASK_H
#define FMON_FS_ASK_H

#include <climits>

#include "linux/fs/fs_key.h"

/* Where a directory lies: an entry of its parent. */
struct fs_place {
    struct fs_stored_key parent;
    char name[NAME_MAX + 1]; /* terminated */
    uint32_t name_len;
    bool deleted; /* it is removed; this is where it was */
};

enum fs_asked {
    FS_ASKED_PLACE, /* *out is filled */
    FS_ASKED_TOP,   /* it is the root of the mount: nothing above can be seen through that mount */
    FS_ASKED_OUT,   /* it exists, and lies outside of the mount */
    FS_ASKED_GONE,  /* there is no such directory */
    FS_ASKED_ERROR  /* errno */
};

/*
 * Where the directory lies, seen through an open directory of a mount (not O_PATH). The answer is of some moment during
 * the call, and what was moved to this place before has its record in the kernel's queue when the call returns.
 * One of enum fs_asked. Needs CAP_DAC_READ_SEARCH.
 */
int fs_ask(int mount_fd, const struct fs_key *key, struct fs_place *out);

/* Whether the directory has that entry, with that handle: 1, 0, or -1 and errno. */
int fs_ask_entry(int mount_fd, const struct fs_key *directory, const char *name, const struct fs_key *entry);

/*
 * The key of an open file or directory (O_PATH will do), as records have it. `*mount_id` may be null, and so may be
 * `*opens`: false if the file system has handles that only name and cannot be opened. 0, or -1 and errno: EOPNOTSUPP
 * where it has none, EOVERFLOW where they are too long.
 */
int fs_ask_key(int fd, struct fs_stored_key *out, int *mount_id, bool *opens);

#endif
