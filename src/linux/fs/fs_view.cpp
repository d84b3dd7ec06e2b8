/*
 * Looks at directories, and at mounts without keeping them busy: whatever is open on a mount has an unmount of it
 * refused, so that mounts are looked at through copies of them, which have no place in the tree of mounts.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "linux/fs/fs_served.h"

namespace
{

constexpr int kOpen = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;

#ifndef OPEN_TREE_CLONE
constexpr unsigned OPEN_TREE_CLONE = 1;
#endif

/* -1: the file system has no handles, or nothing is there. */
int mount_id_at(const char *path)
{
    struct file_handle none = {};
    int id = -1;
    const int got = name_to_handle_at(AT_FDCWD, path, &none, &id, 0);
    return got == 0 || errno == EOVERFLOW ? id : -1;
}

/* The root of a copy of the mount, which goes with the last descriptor on it. -1: the kernel makes none. */
int open_copy(const char *point)
{
#ifdef SYS_open_tree
    constexpr unsigned kFlags = OPEN_TREE_CLONE | O_CLOEXEC | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    const int copy = static_cast<int>(syscall(SYS_open_tree, AT_FDCWD, point, kFlags));
    if (copy < 0)
        return -1;
    const int fd = openat(copy, ".", kOpen);
    close(copy);
    return fd;
#else
    static_cast<void>(point);
    return -1;
#endif
}

/* Closes what is open where that is of no use. */
uint32_t look_at_open(int fd, struct fs_look *out, int *error)
{
    struct stat st;
    uint32_t result = FMON_FALLBACK_NONE;
    out->fd = fd;
    if (fd < 0 || fstat(fd, &st) != 0)
        result = FMON_FALLBACK_ROOT;
    else if (fs_ask_key(fd, &out->key, &out->mount_id, &out->opens) != 0)
        result = FMON_FALLBACK_HANDLE;
    *error = result ? errno : 0;
    if (!result)
        out->dev = st.st_dev;
    else if (fd >= 0)
        close(fd);
    return result;
}

}  // namespace

uint32_t fs_look_at(const char *path, bool follow, struct fs_look *out, int *error)
{
    return look_at_open(open(path, follow ? kOpen : kOpen | O_NOFOLLOW), out, error);
}

/* The mount had the id before and after: the copy is one of it. */
uint32_t fs_look_at_mount(const char *point, struct fs_look *out, int *error)
{
    const int id = strcmp(point, "/") == 0 ? -1 : mount_id_at(point);
    const int fd = id < 0 ? -1 : open_copy(point);
    if (fd < 0)
        return fs_look_at(point, false, out, error);
    const uint32_t result = look_at_open(fd, out, error);
    if (result)
        return result;
    out->mount_id = id;
    if (mount_id_at(point) == id)
        return FMON_FALLBACK_NONE;
    close(fd);
    *error = ENOENT;
    return FMON_FALLBACK_ROOT;
}

bool fs_is_mounted(const char *point, int mount_id, const struct fs_key *root)
{
    union {
        struct file_handle handle;
        char room[sizeof(struct file_handle) + FS_HANDLE_MAX];
    } u;
    int id;
    u.handle.handle_bytes = FS_HANDLE_MAX;
    return name_to_handle_at(AT_FDCWD, point, &u.handle, &id, 0) == 0 && id == mount_id &&
           u.handle.handle_type == root->type && u.handle.handle_bytes == root->len &&
           memcmp(u.room + offsetof(struct file_handle, f_handle), root->bytes, root->len) == 0;
}
