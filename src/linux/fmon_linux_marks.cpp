/* The kernel marks of one dentry, and the masks that they have to carry. */
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "event.h"
#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "linux/inode_index.h"
#include "linux/inotify.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

/* A place that masks are for: a dentry, or with a name what has this name in it. */
struct spot {
    struct dentry *d;
    const char *name;
};

/* Union of the masks of the dentry's watches that lack the mount flag, have all of `flags` and do not spare `place`,
 * where there is one. */
struct fmon_masks masks_with(struct dentry *d, uint32_t flags, const struct spot *place = nullptr)
{
    struct fmon_masks masks = {0, 0};
    FMON_LIST_EACH (node, &owner_of(d)->watches) {
        const struct watch *w = FMON_RECORD(node, struct watch, link);
        if ((w->flags & FMON_MOUNT) || (w->flags & flags) != flags)
            continue;
        if ((w->flags & FMON_LINUX_FS) && (flags & FMON_RECURSIVE))
            continue; /* inotify is on its root alone */
        if (place && fmon_spares(w, place->d, place->name))
            continue;
        masks.fan |= w->fan_mask;
        masks.ino |= w->ino_mask;
    }
    return masks;
}

void set_bit(struct dentry *d, uint16_t bit, bool on)
{
    d->owner_bits = static_cast<uint16_t>(on ? d->owner_bits | bit : d->owner_bits & ~bit);
}

void count_directory(struct dentry *d)
{
    const bool counts = fmon_linux_marked(d) && !(d->owner_bits & DENTRY_FILE);
    if (counts == ((d->owner_bits & DENTRY_COUNTED) != 0))
        return;
    set_bit(d, DENTRY_COUNTED, counts);
    if (counts)
        fmlnx.marked_directories++;
    else
        fmlnx.marked_directories--;
}

int too_long(uint32_t step)
{
    account_refused(FMON_LEFT_TOO_LONG, step, FMON_LINUX_EPATH, 0, nullptr);
    return FMON_LINUX_EPATH;
}

int fan_fd_for(uint32_t flags) { return fmlnx.fan_fd[(flags & FMON_MOUNT) ? FAN_FD_MOUNT : FAN_FD_FILE]; }

const char *mark_path(struct dentry *d, const char *given) { return given ? given : dentry_path_null(d); }

/* Inside a container only the host's tree is of interest; the rest is accepted and never watched. */
bool outside_host_tree(const char *path) { return g_container_flag && strncmp(path, "/rootfs", 7) != 0; }

/* Ends the kernel's watch, whose IN_IGNORED is still to come. */
void end_watch(struct dentry *d)
{
    struct dentry_owner *own = owner_of(d);
    if (inotify_del(own->wd) < 0)
        FMON_LOG(1, kFile, "inotify del failed: %s\n", strerror(errno));
    if (seq_set(&fmlnx.seq, own->wd, SEQ_POISON) < 0)
        FMON_LOG(1, kFile, "set seq failed, wd %d\n", own->wd);
    fmon_linux_set_wd(d, -1);
}

/* Whether records of the dentry's watch descriptor reach another one, which stands for the same inode. */
bool lent_wd(struct dentry *d)
{
    return fmlnx.by_descriptor && seq_get(&fmlnx.seq, owner_of(d)->wd) != reinterpret_cast<uintptr_t>(d);
}

/* Lets go of the watch descriptor that another one replaces. */
void end_old_watch(struct dentry *d)
{
    struct dentry_owner *own = owner_of(d);
    if (lent_wd(d))
        return;
    if (inotify_del(own->wd) < 0)
        FMON_LOG(1, kFile, "del old inotify failed: wd %d\n", own->wd);
    /* Where the directory went together with its watch, an IN_IGNORED of the old descriptor is under way: it is not one
     * for a directory that is not known. */
    if (fmlnx.by_descriptor)
        seq_set(&fmlnx.seq, own->wd, SEQ_POISON);
    else if (seq_del(&fmlnx.seq, own->wd) < 0)
        FMON_LOG(1, kFile, "del seq failed, wd %d\n", own->wd);
}

/* Gives the dentry its watch descriptor, in place of an older one. */
int adopt_wd(struct dentry *d, int wd)
{
    struct dentry_owner *own = owner_of(d);
    if (own->wd >= 0 && own->wd != wd)
        end_old_watch(d);
    if (own->wd == wd)
        return 0;

    if (seq_set(&fmlnx.seq, wd, reinterpret_cast<uintptr_t>(d)) == 0) {
        fmon_linux_set_wd(d, wd);
        if (wd > fmlnx.highest_wd)
            fmlnx.highest_wd = wd;
        return 0;
    }
    FMON_LOG(1, kFile, "add seq failed, wd %d\n", wd);
    inotify_del(wd);
    fmon_linux_set_wd(d, -1);
    account_refused(FMON_LEFT_OTHER, FMON_STEP_TABLE, FMON_LINUX_ESEQ, ENOMEM, dentry_path_null(d));
    return FMON_LINUX_ESEQ;
}

/* Calls visit(other) for each other dentry that stands for the same inode: other names of a file, other mounts of a
 * directory. */
template <typename Visit>
void for_each_sharer(struct dentry *d, Visit visit)
{
    if (!(d->owner_bits & DENTRY_INDEXED))
        return;
    for (struct dentry *other = inode_index_first(d); other; other = inode_index_next(other))
        if (other != d)
            visit(other);
}

/* What other dentries need of the inode that the dentry stands for. */
struct fmon_masks shared_masks(struct dentry *d)
{
    struct fmon_masks masks = {0, 0};
    for_each_sharer(d, [&masks](struct dentry *other) {
        masks = masks_or(masks, masks_or(fmon_linux_own_masks(other), fmon_linux_recursive_masks(other)));
    });
    return masks;
}

/* Who may take over the dentry's watch, or null. An inode number that was given to a new inode before the old one's
 * IN_IGNORED was read makes two dentries look alike that have a watch each: neither is the other's. */
struct dentry *heir_of(struct dentry *d)
{
    struct dentry *heir = nullptr;
    for_each_sharer(d, [d, &heir](struct dentry *other) {
        if (owner_of(other)->wd < 0 || owner_of(other)->wd == owner_of(d)->wd)
            heir = other;
    });
    return heir;
}

/* The number that the log shows, of an inode that was not opened. */
void note_inode(struct dentry *d, const char *path)
{
    struct stat st;
    if (stat(path, &st) == 0)
        owner_of(d)->ino = st.st_ino;
    else
        FMON_LOG(1, kFile, "maybe the file not exist! %s", path);
}

/* Places the mask, alone or with what else is needed of the inode, on what is open or on what has the name. */
int set_inotify(struct dentry *d, const struct fmon_place *at, const char *path, uint32_t mask)
{
    if (at && at->fd >= 0)
        return inotify_set_opened(at->link, mask | shared_masks(d).ino);
    return inotify_set(path, mask);
}

/* As the place is opened for it, where marks are not put on names. */
int place_down(struct dentry *d, uint32_t mask)
{
    struct fmon_place at;
    if (fmon_linux_place_reopen(&at, d) < 0)
        return 0; /* what it stands for went elsewhere; its watch reports more than is needed until that is read */
    int result = fmon_linux_ino_up(d, &at, 0, mask);
    fmon_linux_place_close(&at);
    return result;
}

/* Leaves the dentry's watch to another one that stands for the same inode. */
int leave_watch(struct dentry *d, struct dentry *heir)
{
    int wd = owner_of(d)->wd;
    fmon_linux_set_wd(d, -1);
    fmon_linux_set_wd(heir, -1);
    return adopt_wd(heir, wd);
}

int mark_fanotify(const struct fmon_place *at, const char *path, uint32_t bits, uint32_t flags,
                  int (*call)(int, const char *, uint32_t, uint32_t))
{
    if (at && at->fd >= 0)
        return call(fan_fd_for(flags), at->link, bits, flags | FMON_LINUX_OPENED);
    return call(fan_fd_for(flags), path, bits, flags);
}

}  // namespace

void fmon_linux_set_wd(struct dentry *d, int32_t wd)
{
    owner_of(d)->wd = wd;
    count_directory(d);
}

void fmon_linux_pass_watch_on(struct dentry *d)
{
    if (owner_of(d)->wd < 0 || lent_wd(d))
        return;
    struct dentry *heir = shared_masks(d).ino != 0 ? heir_of(d) : nullptr;
    if (heir)
        leave_watch(d, heir);
}

void fmon_linux_set_fan_mark(struct dentry *d, bool carries)
{
    set_bit(d, DENTRY_FAN_MARK, carries);
    count_directory(d);
}

void fmon_linux_set_file(struct dentry *d, bool is_file) { set_bit(d, DENTRY_FILE, is_file); }

struct fmon_masks fmon_linux_own_masks(struct dentry *d) { return masks_with(d, 0); }

struct fmon_masks fmon_linux_dir_masks(struct dentry *d) { return masks_with(d, FMON_DIR); }

struct fmon_masks fmon_linux_recursive_own_masks(struct dentry *d) { return masks_with(d, FMON_RECURSIVE); }

struct fmon_masks fmon_linux_recursive_masks(struct dentry *d) { return fmon_linux_recursive_masks_of(d, nullptr); }

struct fmon_masks fmon_linux_recursive_masks_of(struct dentry *parent, const char *name)
{
    const struct spot place = {parent, name};
    struct fmon_masks masks = {0, 0};
    for (struct dentry *d = parent; d; d = d->parent)
        masks = masks_or(masks, masks_with(d, FMON_RECURSIVE, &place));
    return masks;
}

/* The words "down" in the two lines of the mark-up functions are the log's established text. */
int fmon_linux_fan_up(struct dentry *d, const char *given, const struct fmon_place *at, uint32_t old, uint32_t add,
                      uint32_t flags)
{
    uint32_t bits = add & ~old;
    if (bits == 0)
        return 0;
    const char *path = mark_path(d, given);
    if (!path)
        return too_long(FMON_STEP_FANOTIFY);

    FMON_LOG(4, kFile, "fanotify down: %s event %s flags %s\n", path, event_str(bits), flags_str(flags));
    int result = mark_fanotify(at, path, bits, flags, fanotify_add);
    if (result < 0 && errno == ENOSPC && fmon_linux_make_room_for_marks())
        result = mark_fanotify(at, mark_path(d, given), bits, flags, fanotify_add);
    if (result >= 0) {
        if (d && !(flags & FMON_MOUNT))
            fmon_linux_set_fan_mark(d, true);
        return 0;
    }
    int error = errno;
    FMON_LOG(1, kFile, "fanotify add failed: %s\n", strerror(error));
    result = error == ENOENT ? FMON_ENOENT : FMON_LINUX_EFANOTIFY;
    account_system_refused(FMON_STEP_FANOTIFY, result, error, mark_path(d, given));
    return result;
}

int fmon_linux_fan_down(struct dentry *d, const char *path, uint32_t remain, uint32_t del, uint32_t flags)
{
    struct fmon_place at = {};
    at.fd = -1;
    bool opened = d && fmlnx.by_descriptor && !(flags & FMON_MOUNT);
    if (opened)
        remain |= shared_masks(d).fan;
    uint32_t bits = del & ~remain;
    if (bits == 0)
        return 0;
    path = mark_path(d, path);
    if (!path)
        return FMON_LINUX_EPATH;

    FMON_LOG(4, kFile, "fanotify del: %s event %s flags %s\n", path, event_str(bits), flags_str(flags));
    if (remain == 0)
        flags |= FMON_LINUX_LAST_MARK;
    if (opened && fmon_linux_place_reopen(&at, d) < 0) {
        FMON_LOG(2, kFile, "fanotify file path lost, can't remove\n");
        fmon_linux_lost_mark(d);
        return 0;
    }
    int result = mark_fanotify(&at, path, bits, flags, fanotify_del);
    int error = errno;
    fmon_linux_place_close(&at);
    if (d && remain == 0)
        fmon_linux_set_fan_mark(d, false);
    if (result >= 0)
        return 0;
    FMON_LOG(1, kFile, "fanotify del failed: %s\n", strerror(error));
    return FMON_LINUX_EFANOTIFY;
}

int fmon_linux_ino_up(struct dentry *d, const struct fmon_place *at, uint32_t old, uint32_t add)
{
    uint32_t mask = old | add;
    if (mask == 0)
        return 0;
    struct dentry_owner *own = owner_of(d);
    const char *path = dentry_path_null(d);
    if (!path)
        return too_long(FMON_STEP_INOTIFY);
    if (outside_host_tree(path))
        return 0;

    FMON_LOG(4, kFile, "inotify down: %s old %s, new %s, old wd %d\n", path, event_str(old), event_str2(add), own->wd);
    /* The mask replaces any earlier one on the inode, so it always carries what the others need too. */
    int wd = set_inotify(d, at, path, mask);
    if (wd < 0) {
        int error = errno;
        FMON_LOG(1, kFile, "inotify add failed: %s\n", strerror(error));
        int result = error == ENOENT ? FMON_ENOENT : FMON_LINUX_EINOTIFY;
        account_system_refused(FMON_STEP_INOTIFY, result, error, path);
        return result;
    }

    if (!at || at->fd < 0)
        note_inode(d, path);
    unsigned long ino = static_cast<unsigned long>(own->ino);
    FMON_LOG(3, kFile, "path:%s,inode:%lu", path, ino);
    FMON_LOG(3, kFile, "wd %d,path:%s,inode:%lu\n", wd, path, ino);
    bool fresh = seq_get(&fmlnx.seq, wd) == 0;
    int result = adopt_wd(d, wd);
    if (fresh && result == 0)
        account_marked(path);
    return result;
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
        return place_down(d, remain);
    if (lent_wd(d)) {
        fmon_linux_set_wd(d, -1);
        return 0;
    }
    uint32_t shared = shared_masks(d).ino;
    struct dentry *heir = shared != 0 ? heir_of(d) : nullptr;
    if (heir) {
        int result = place_down(d, shared);
        return result < 0 ? result : leave_watch(d, heir);
    }

    FMON_LOG(4, kFile, "inotify remove %s wd %d, remain %s, del %s\n", dentry_path(d), own->wd, event_str(remain),
             event_str2(del));
    end_watch(d);
    return 0;
}
