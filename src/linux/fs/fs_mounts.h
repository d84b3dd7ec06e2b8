/*
 * fs_mounts.h: the mount table as the source of whole file systems looks at it: every mount, whatever is mounted.
 */
#ifndef FMON_FS_MOUNTS_H
#define FMON_FS_MOUNTS_H

#include <cstddef>
#include <cstdint>

struct fs_mount {
    int id, parent; /* mount ids */
    unsigned major, minor;
    const char *root;  /* what of the file system is mounted */
    const char *point; /* where; without escapes, like the other texts */
    const char *type;
};

struct fs_mounts {
    char *text; /* what the mounts' texts lie in */
    struct fs_mount *all;
    size_t count;
};

/* Reads the table anew. False: it cannot be read, or there is no memory; *out stays as it was. */
bool fs_mounts_read(struct fs_mounts *out);
void fs_mounts_free(struct fs_mounts *mounts);

/* (For tests.) The same of a text that ends with a newline; taken over, freed where it fails. */
bool fs_mounts_parse(char *text, struct fs_mounts *out);

/* The mount of that id, or null. */
const struct fs_mount *fs_mounts_find(const struct fs_mounts *mounts, int id);

/* Whether `path` lies below `directory`, and is not that itself. */
bool fs_path_is_below(const char *path, const char *directory);

/* Interfaces of the kernel, without files of their own: none has marks or handles, and a mark on tracefs may crash
 * kernels before 6.7 when a probe is deleted. */
bool fs_mount_is_pseudo(const struct fs_mount *mount);

/* Served by another machine or by a process, which may let everybody wait. */
bool fs_mount_is_remote(const struct fs_mount *mount);

#endif
