/*
 * What a mark is put on. A hardened monitor opens it first and marks what it opened, so that all marks land on one
 * object and the index of inodes says which, whatever has the name by then.
 */
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "linux/inode_index.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

constexpr int kOpen = O_PATH | O_NOFOLLOW | O_CLOEXEC;

int open_flags(uint32_t watch_flags) { return (watch_flags & FMON_DIR) ? kOpen | O_DIRECTORY : kOpen; }

/* By a path without a link in it, where the watch demands that; kernels before 5.6, and containers that do not let the
 * call through, know no such opening, and have the path as it was when the watch was added. */
int open_path(const char *path, uint32_t watch_flags)
{
    if ((watch_flags & FMON_NO_LINKS) && !g_container_flag) {
        struct open_how how = {};
        how.flags = static_cast<uint64_t>(open_flags(watch_flags));
        how.resolve = RESOLVE_NO_SYMLINKS;
        int fd = static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof(how)));
        if (fd >= 0 || (errno != ENOSYS && errno != EPERM))
            return fd;
    }
    return open(path, open_flags(watch_flags));
}

/* Kernels before 3.6 refuse the plain call for a descriptor that gives no access. */
bool look(int fd, struct stat *st)
{
    return fd >= 0 && (fstat(fd, st) == 0 || fstatat(fd, "", st, AT_EMPTY_PATH) == 0);
}

bool is_missing(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

int failed(struct dentry *d)
{
    int error = errno;
    FMON_LOG(1, kFile, "open %s to mark it failed: %s\n", dentry_path(d), strerror(error));
    int result = is_missing(error) ? FMON_ENOENT : FMON_LINUX_EINOTIFY;
    account_system_refused(FMON_STEP_OPEN, result, error, dentry_path_null(d));
    return result;
}

int too_long()
{
    account_refused(FMON_LEFT_TOO_LONG, FMON_STEP_OPEN, FMON_LINUX_EPATH, 0, nullptr);
    return FMON_LINUX_EPATH;
}

void name_link(struct fmon_place *at, int fd)
{
    at->fd = fd;
    snprintf(at->link, sizeof(at->link), "/proc/self/fd/%d", fd);
}

/* Takes the descriptor, and enters what it is of into the index. */
int settle(struct fmon_place *at, struct dentry *d, int fd)
{
    struct stat st;
    if (!look(fd, &st)) {
        int result = failed(d);
        if (fd >= 0)
            close(fd);
        return result;
    }
    at->fresh = !(d->owner_bits & DENTRY_FAN_MARK);
    at->replaced = (d->owner_bits & DENTRY_INDEXED) && !inode_index_is(d, st.st_dev, st.st_ino);
    if (at->replaced)
        fmon_linux_pass_watch_on(d);
    /* One that was removed can still be opened through its descriptor's name, and would never be heard of again. */
    int result = st.st_nlink == 0 ? FMON_ENOENT : inode_index_set(d, st.st_dev, st.st_ino);
    if (result < 0) {
        close(fd);
        account_system_refused(FMON_STEP_OPEN, result, result == FMON_ENOENT ? ENOENT : ENOMEM, dentry_path_null(d));
        return result;
    }
    if (at->replaced) {
        fmon_linux_lost_mark(d);
        fmon_linux_serve_anew(d);
    }
    name_link(at, fd);
    return 0;
}

/* The directory, when it still is where its dentry says, or, where that is not known, by no link; else -1. */
int open_parent(struct dentry *d)
{
    const char *path = dentry_path_null(d);
    bool known = d->owner_bits & DENTRY_INDEXED;
    int fd = path ? open_path(path, known ? FMON_DIR : FMON_DIR | FMON_NO_LINKS) : -1;
    struct stat st;
    if (look(fd, &st) && (!known || inode_index_is(d, st.st_dev, st.st_ino)))
        return fd;
    if (fd >= 0) {
        close(fd);
        errno = ENOENT; /* what the dentry stood for is not there any more */
    }
    return -1;
}

}  // namespace

int fmon_linux_place_open(struct fmon_place *at, struct dentry *d, uint32_t flags)
{
    *at = {};
    at->fd = -1;
    if (!fmlnx.by_descriptor)
        return 0;
    const char *path = dentry_path_null(d);
    return path ? settle(at, d, open_path(path, flags)) : too_long();
}

int fmon_linux_place_open_at(struct fmon_place *at, struct dentry *d, int parent_fd)
{
    *at = {};
    at->fd = -1;
    if (!fmlnx.by_descriptor)
        return 0;
    if (!dentry_path_null(d)) /* its events could not be reported */
        return too_long();
    return settle(at, d, openat(parent_fd, dentry_name(d), open_flags(FMON_DIR)));
}

int fmon_linux_place_open_child(struct fmon_place *at, struct dentry *d)
{
    *at = {};
    at->fd = -1;
    if (!fmlnx.by_descriptor)
        return 0;
    int parent_fd = open_parent(d->parent);
    if (parent_fd < 0)
        return failed(d);
    int result = fmon_linux_place_open_at(at, d, parent_fd);
    close(parent_fd);
    return result;
}

int fmon_linux_place_reopen(struct fmon_place *at, struct dentry *d)
{
    *at = {};
    at->fd = -1;
    if (!fmlnx.by_descriptor)
        return 0;
    const char *path = dentry_path_null(d);
    int fd = path ? open(path, kOpen) : -1;
    struct stat st;
    if (!look(fd, &st) || !inode_index_is(d, st.st_dev, st.st_ino)) {
        if (fd >= 0)
            close(fd);
        return FMON_ENOENT;
    }
    return settle(at, d, fd);
}

void fmon_linux_lost_mark(struct dentry *d)
{
    if (!(d->owner_bits & DENTRY_FAN_MARK))
        return;
    fmon_linux_set_fan_mark(d, false);
    fmlnx.stale_marks++;
}

int fmon_linux_take_mark(int fd, uint32_t type)
{
    struct fmon_place at;
    name_link(&at, fd);
    return fanotify_del(fmlnx.fan_fd[FAN_FD_FILE], at.link, FMON_LINUX_FANOTIFY_KINDS,
                        type | FMON_LINUX_LAST_MARK | FMON_LINUX_OPENED);
}

void fmon_linux_forget_bare(struct dentry *d)
{
    if (!fmon_linux_marked(d))
        inode_index_remove(d);
}

void fmon_linux_place_close(struct fmon_place *at)
{
    if (at->fd >= 0)
        close(at->fd);
    at->fd = -1;
}

int fmon_linux_in_place(struct dentry *d)
{
    struct stat st;
    const char *path = fmlnx.by_descriptor ? dentry_path_null(d) : nullptr;
    if (!path)
        return PLACE_UNKNOWN;
    if (lstat(path, &st) != 0)
        return is_missing(errno) ? PLACE_GONE : PLACE_UNKNOWN;
    if (inode_index_is(d, st.st_dev, st.st_ino))
        return PLACE_SAME;
    return S_ISDIR(st.st_mode) ? PLACE_OTHER_DIR : PLACE_GONE;
}
