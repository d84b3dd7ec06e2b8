/* The kernel marks of one dentry, and the masks that they have to carry. */
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "event.h"
#include "linux/fmon_linux.h"
#include "linux/inotify.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

/* Union of the masks of the dentry's watches that lack the mount flag and have all of `flags`. */
struct fmon_masks masks_with(struct dentry *d, uint32_t flags)
{
    struct fmon_masks masks = {0, 0};
    FMON_LIST_EACH (node, &owner_of(d)->watches) {
        const struct watch *w = FMON_RECORD(node, struct watch, link);
        if ((w->flags & FMON_MOUNT) || (w->flags & flags) != flags)
            continue;
        masks.fan |= w->fan_mask;
        masks.ino |= w->ino_mask;
    }
    return masks;
}

int fan_fd_for(uint32_t flags) { return fmlnx.fan_fd[(flags & FMON_MOUNT) ? FAN_FD_MOUNT : FAN_FD_FILE]; }

const char *mark_path(struct dentry *d, const char *given) { return given ? given : dentry_path_null(d); }

/* Inside a container only the host's tree is of interest; the rest is accepted and never watched. */
bool outside_host_tree(const char *path) { return g_container_flag && strncmp(path, "/rootfs", 7) != 0; }

/* Gives the dentry its watch descriptor, in place of an older one. */
int adopt_wd(struct dentry *d, int wd)
{
    struct dentry_owner *own = owner_of(d);
    if (own->wd >= 0 && own->wd != wd) {
        if (inotify_del(own->wd) < 0)
            FMON_LOG(1, kFile, "del old inotify failed: wd %d\n", own->wd);
        if (seq_del(&fmlnx.seq, own->wd) < 0)
            FMON_LOG(1, kFile, "del seq failed, wd %d\n", own->wd);
    }
    if (own->wd == wd)
        return 0;

    own->wd = wd;
    if (seq_set(&fmlnx.seq, wd, reinterpret_cast<uintptr_t>(d)) == 0)
        return 0;
    FMON_LOG(1, kFile, "add seq failed, wd %d\n", wd);
    inotify_del(wd);
    own->wd = -1;
    return FMON_LINUX_ESEQ;
}

}  // namespace

struct fmon_masks fmon_linux_own_masks(struct dentry *d) { return masks_with(d, 0); }

struct fmon_masks fmon_linux_recursive_own_masks(struct dentry *d) { return masks_with(d, FMON_RECURSIVE); }

struct fmon_masks fmon_linux_recursive_masks(struct dentry *d)
{
    struct fmon_masks masks = {0, 0};
    for (; d; d = d->parent)
        masks = masks_or(masks, fmon_linux_recursive_own_masks(d));
    return masks;
}

/* The words "down" in the two lines of the mark-up functions are the log's established text. */
int fmon_linux_fan_up(struct dentry *d, const char *path, uint32_t old, uint32_t add, uint32_t flags)
{
    uint32_t bits = add & ~old;
    if (bits == 0)
        return 0;
    path = mark_path(d, path);
    if (!path)
        return FMON_LINUX_EPATH;

    FMON_LOG(4, kFile, "fanotify down: %s event %s flags %s\n", path, event_str(bits), flags_str(flags));
    if (fanotify_add(fan_fd_for(flags), path, bits, flags) >= 0)
        return 0;
    int error = errno;
    FMON_LOG(1, kFile, "fanotify add failed: %s\n", strerror(error));
    return error == ENOENT ? FMON_ENOENT : FMON_LINUX_EFANOTIFY;
}

int fmon_linux_fan_down(struct dentry *d, const char *path, uint32_t remain, uint32_t del, uint32_t flags)
{
    uint32_t bits = del & ~remain;
    if (bits == 0)
        return 0;
    path = mark_path(d, path);
    if (!path)
        return FMON_LINUX_EPATH;

    FMON_LOG(4, kFile, "fanotify del: %s event %s flags %s\n", path, event_str(bits), flags_str(flags));
    if (remain == 0)
        flags |= FMON_LINUX_LAST_MARK;
    if (fanotify_del(fan_fd_for(flags), path, bits, flags) >= 0)
        return 0;
    FMON_LOG(1, kFile, "fanotify del failed: %s\n", strerror(errno));
    return FMON_LINUX_EFANOTIFY;
}

int fmon_linux_ino_up(struct dentry *d, uint32_t old, uint32_t add)
{
    uint32_t mask = old | add;
    if (mask == 0)
        return 0;
    struct dentry_owner *own = owner_of(d);
    const char *path = dentry_path_null(d);
    if (!path)
        return FMON_LINUX_EPATH;
    if (outside_host_tree(path))
        return 0;

    FMON_LOG(4, kFile, "inotify down: %s old %s, new %s, old wd %d\n", path, event_str(old), event_str2(add), own->wd);
    /* The mask replaces any earlier one on the inode, so it always carries what the others need too. */
    int wd = inotify_set(path, mask);
    if (wd < 0) {
        int error = errno;
        FMON_LOG(1, kFile, "inotify add failed: %s\n", strerror(error));
        return error == ENOENT ? FMON_ENOENT : FMON_LINUX_EINOTIFY;
    }

    struct stat st;
    if (stat(path, &st) == 0)
        own->ino = st.st_ino;
    else
        FMON_LOG(1, kFile, "maybe the file not exist! %s", path);
    unsigned long ino = static_cast<unsigned long>(own->ino);
    FMON_LOG(3, kFile, "path:%s,inode:%lu", path, ino);
    FMON_LOG(3, kFile, "wd %d,path:%s,inode:%lu\n", wd, path, ino);
    return adopt_wd(d, wd);
}

int fmon_linux_ino_down(struct dentry *d, uint32_t remain, uint32_t del)
{
    if ((del & ~remain) == 0)
        return 0;
    struct dentry_owner *own = owner_of(d);
    if (own->wd == -1) {
        FMON_LOG(1, kFile, "wd is -1, but has events, remain %s, old %s\n", event_str(remain), event_str2(del));
        return -1;
    }
    if (remain != 0)
        return fmon_linux_ino_up(d, 0, remain);

    FMON_LOG(4, kFile, "inotify remove %s wd %d, remain %s, del %s\n", dentry_path(d), own->wd, event_str(remain),
             event_str2(del));
    if (inotify_del(own->wd) < 0)
        FMON_LOG(1, kFile, "inotify del failed: %s\n", strerror(errno));
    if (seq_set(&fmlnx.seq, own->wd, SEQ_POISON) < 0)
        FMON_LOG(1, kFile, "set seq failed, wd %d\n", own->wd);
    own->wd = -1;
    return 0;
}
