/*
 * fs_group.h: the fanotify group whose records name directories by their handles, and its marks on whole file systems
 * and on single directories. What the kernel knows of it is found out by trying.
 */
#ifndef FMON_FS_GROUP_H
#define FMON_FS_GROUP_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct fs_group {
    int fd;      /* -1: none */
    bool rename; /* both halves of a rename come in one record; refused: the halves are asked for */
};

/* Opens the group. `limited`: its queue has the kernel's limit. -1 and errno: refused, the group is closed. Under the
 * monitor lock, after init_fanotify(). */
int fs_group_open(struct fs_group *group, bool limited);
void fs_group_close(struct fs_group *group);

/* Bits of the kernel's that a mark needs for these FMON_* kinds: on a whole file system, where changes of directories
 * are always among them, and on one directory, 0 for no kinds. `children`: what happens to its entries, too. */
uint64_t fs_group_system_bits(const struct fs_group *group, uint32_t kinds);
uint64_t fs_group_directory_bits(const struct fs_group *group, uint32_t kinds, bool children);

/* Adds bits to the mark on what is open, or takes bits away. `system`: on its whole file system. -1 and errno. A kernel
 * that refuses FAN_RENAME is noted in `rename`: the bits are to be computed anew, -EAGAIN. */
int fs_group_mark(struct fs_group *group, int fd, bool system, uint64_t bits);
int fs_group_unmark(const struct fs_group *group, int fd, bool system, uint64_t bits);

/* Whether the file system of what is open still carries a mark of the group: an unmount takes marks away without a
 * word. */
bool fs_group_is_marked(const struct fs_group *group, int fd);

/* Of the files in an open directory nothing is reported, though its file system is marked; what happens to directories
 * is, and renames are. Undone by the second, which is no failure where nothing was ignored. -1 and errno: EINVAL where
 * the kernel cannot (before 6.0). The kernel may forget such a mark, when memory is short. */
int fs_group_ignore(const struct fs_group *group, int fd);
int fs_group_heed(const struct fs_group *group, int fd);

/* Reads records until nothing waits or fewer than FS_GROUP_ROOM bytes are left. Returns the bytes read; *drained:
 * nothing waited any more. An error other than that is as if nothing waited, and *error is its errno. */
enum { FS_GROUP_ROOM = 4096 }; /* more than any record takes */
size_t fs_group_read(const struct fs_group *group, char *buffer, size_t size, bool *drained, int *error);

#endif
