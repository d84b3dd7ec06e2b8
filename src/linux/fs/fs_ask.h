/*
 * fs_ask.h: what the kernel is asked about directories of whole file systems: which handle a path has, and where the
 * directory with a handle lies now. Needs CAP_DAC_READ_SEARCH. Descriptors are the caller's to close.
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
    FS_ASKED_TOP,   /* it is the root of the mount, or lies outside: nothing above can be seen through that mount */
    FS_ASKED_GONE,  /* there is no such directory */
    FS_ASKED_ERROR  /* errno */
};

/* What an entry of a directory is. */
enum fs_entry_kind {
    FS_ENTRY_THIS,     /* it has the handle that was asked for */
    FS_ENTRY_WHITEOUT, /* an overlay's sign that a lower file is deleted: a character device 0:0 */
    FS_ENTRY_OTHER,
    FS_ENTRY_NONE,
    FS_ENTRY_ERROR /* errno */
};

/* The questions, so that tests can answer them. `arg` is that of struct fs_world. */
struct fs_asks {
    /*
     * Where the directory lies, seen through an open directory of a mount (not O_PATH). The answer is of some moment
     * during the call, and what was moved to this place before has its record in the kernel's queue when the call
     * returns.
     */
    enum fs_asked (*place)(void *arg, int mount_fd, const struct fs_key *key, struct fs_place *out);

    int (*open)(void *arg, int mount_fd, const struct fs_key *directory); /* -1 and errno */

    /* Calls each(to, ...) for each entry of an open directory. False: there are too many, or an error. */
    bool (*list)(void *arg, int directory_fd, void (*each)(void *to, const char *name, uint32_t len), void *to);

    /* `key` null: no handle is asked for. */
    enum fs_entry_kind (*entry)(void *arg, int directory_fd, const char *name, const struct fs_key *key);

    /* Opens the directory at the path, if it has that key: -1 and errno, ENOENT if it has another. */
    int (*open_path)(void *arg, const char *path, const struct fs_key *key);

    void (*close)(void *arg, int fd);
};

extern const struct fs_asks fs_kernel; /* the kernel's answers */

/*
 * The key of an open file or directory (O_PATH will do), as records have it. `*mount_id` may be null, and so may be
 * `*opens`: false if the file system has handles that only name and cannot be opened. 0, or -1 and errno: EOPNOTSUPP
 * where it has none, EOVERFLOW where they are too long.
 */
int fs_ask_key(int fd, struct fs_stored_key *out, int *mount_id, bool *opens);

#endif
