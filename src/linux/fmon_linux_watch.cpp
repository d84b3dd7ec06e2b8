/* Adding and deleting watches: the backend's side of the registry. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "event.h"
#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_source.h"
#include "linux/inode_index.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

/* The kinds that report changes of the tree. */
constexpr uint32_t kSyncMask =
    FMON_MOVED_FROM | FMON_MOVED_TO | FMON_CREATE | FMON_DELETE | FMON_DELETE_SELF | FMON_MOVE_SELF;

static_assert(FMON_LINUX_FANOTIFY_KINDS == 0x3b && kSyncMask == 0xfc0, "masks known to clients");

/* The kinds by which the end of a file is noticed. */
constexpr uint32_t kEndMask = FMON_DELETE_SELF | FMON_MOVE_SELF | FMON_ATTRIB;

/* What the watch itself wants of inotify. */
uint32_t asked_of_inotify(const struct watch *w)
{
    uint32_t mask = (w->flags & (FMON_MOUNT | FMON_PID)) ? 0 : w->mask & ~w->fan_mask;
    return (w->flags & FMON_SYNC) && !(w->flags & FMON_MOUNT) ? mask | kSyncMask : mask;
}

/* Divides the watch's mask between the two sources. */
void split_mask(struct watch *w)
{
    if (w->flags & (FMON_MOUNT | FMON_PID))
        w->fan_mask = w->mask;
    else
        w->fan_mask = fmlnx.fan_fd[FAN_FD_FILE] >= 0 ? w->mask & FMON_LINUX_FANOTIFY_KINDS : 0;
    w->ino_mask = asked_of_inotify(w);
    /* Without these the watch would stay with a file that is gone, or has another name by now, and hear nothing. */
    if (fmon.hardened && (w->flags & FMON_FILE))
        w->ino_mask |= kEndMask;
    FMON_LOG(4, kFile, "fanotify event: %s, inotify event: %s\n", event_str(w->fan_mask), event_str2(w->ino_mask));
}

/* Places the watch's marks on what is open; `made`: the dentry is new to the cache, so no mark of ours can be on it,
 * whatever its ancestors want. What was opened may be new to the dentry, too: then it carries nothing yet. */
int mark_watched(struct watch *w, const struct fmon_place *at, bool made, struct fmon_masks rec)
{
    struct dentry *d = w->dentry;
    struct fmon_masks others = masks_or(fmon_linux_own_masks(d), rec); /* the new watch is not linked yet */
    uint32_t fan_mask = at->replaced ? w->fan_mask | others.fan : w->fan_mask;
    int result = fmon_linux_fan_up(d, nullptr, at, made || at->fresh ? 0 : others.fan, fan_mask, w->flags);
    if (result < 0)
        return result;
    result = fmon_linux_ino_up(d, at, others.ino, w->ino_mask);
    if (result >= 0 && (w->flags & (FMON_RECURSIVE | FMON_LINUX_FS)) == FMON_RECURSIVE) {
        struct fmon_masks base = masks_or(rec, {w->fan_mask, w->ino_mask});
        fmlnx.placing = w;
        result = fmon_linux_mark_subtree(d, w->max_depth, w->max_subdirs, base);
        fmlnx.placing = nullptr;
        if (result < 0)
            fmon_linux_ino_down(d, others.ino, w->ino_mask);
    }
    if (result < 0)
        fmon_linux_fan_down(d, nullptr, others.fan, w->fan_mask, w->flags);
    return result;
}

/* The kinds that inotify reports of a served watch's root, so that its end is noticed. */
constexpr uint32_t kRootMask = FMON_DELETE_SELF | FMON_MOVE_SELF;

/* True: the source of whole file systems serves the watch, whose root has inotify's marks for its own end. */
bool serve(struct watch *w, const struct fmon_place *at, bool made)
{
    if (!fs_source_add(w, at->fd >= 0 ? at->link : w->path))
        return false;
    w->fan_mask = 0;
    w->ino_mask = kRootMask;
    if (mark_watched(w, at, made, fmon_linux_recursive_masks(w->dentry)) == 0)
        return true;
    account_fallback(FMON_FALLBACK_ROOT, errno, w->path);
    fs_source_remove(w);
    split_mask(w);
    return false;
}

/* Whether marks of inotify and fanotify can do what the watch asks. */
bool marks_will_do(const struct watch *w)
{
    return !(w->flags & (FMON_MOUNT | FMON_PID)) ||
           (fmlnx.fan_fd[FAN_FD_MOUNT] >= 1 && !(w->mask & ~FMON_LINUX_FANOTIFY_KINDS));
}

int place_watched(struct watch *w, const struct fmon_place *at, bool made)
{
    if (serve(w, at, made))
        return 0;
    if (!marks_will_do(w))
        return FMON_ENOTSUP;
    return mark_watched(w, at, made, fmon_linux_recursive_masks(w->dentry));
}

int add_tree_watch(struct watch *w, bool made)
{
    struct fmon_place at;
    fmon_linux_set_file(w->dentry, (w->flags & FMON_FILE) != 0);
    int result = fmon_linux_place_open(&at, w->dentry, w->flags);
    if (result < 0)
        return result;
    result = place_watched(w, &at, made);
    fmon_linux_place_close(&at);
    if (result < 0)
        fmon_linux_forget_bare(w->dentry);
    return result;
}

}  // namespace

void fmon_linux_serve_anew(struct dentry *d)
{
    FMON_LIST_EACH (node, &owner_of(d)->watches) {
        struct watch *w = FMON_RECORD(node, struct watch, link);
        if (!(w->flags & FMON_LINUX_FS))
            continue;
        fs_source_remove(w);
        if (!fs_source_add(w, w->path))
            split_mask(w);
        fs_source_add_below(w);
    }
}

int fmon_check_watch(struct watch *w)
{
    if ((w->mask & FMON_ALL_EVENTS) == 0 || w->mask > FMON_ALL_EVENTS)
        return FMON_EINVAL;
    if (w->flags & FMON_DELAY) {
        if ((w->mask & FMON_ACCESS) && (w->mask & FMON_CLOSE) != FMON_CLOSE)
            return FMON_EINVAL;
        if ((w->mask & FMON_MODIFY) && !(w->mask & FMON_CLOSE_WRITE))
            return FMON_EINVAL;
    }
    return marks_will_do(w) || fs_source_takes(w) ? 0 : FMON_ENOTSUP;
}

namespace
{

/* Which the source of whole file systems never serves: it says so. */
int add_mount_watch(struct watch *w)
{
    fs_source_add(w, w->path);
    return fmon_linux_add_mount_watch(w);
}

}  // namespace

int fmon_linux_add_watch(struct fmon *monitor, struct watch *w)
{
    split_mask(w);
    account_attempt();
    bool made = dcache_find(&monitor->dcache, w->path) == nullptr;
    struct dentry *d = dcache_add(&monitor->dcache, w->path);
    if (!d) {
        account_refused(FMON_LEFT_CACHE_FULL, FMON_STEP_CACHE, FMON_ENOMEM, 0, w->path);
        return FMON_ENOMEM;
    }
    w->dentry = d;

    int result = (w->flags & FMON_MOUNT) ? add_mount_watch(w) : add_tree_watch(w, made);
    if (result < 0) {
        FMON_LOG(4, kFile, "watch failed, roll back dentry\n");
        fmon_linux_collect(d);
        w->dentry = nullptr;
        return result;
    }
    /* The node may still hold its neighbours in the list of waiting watches, whose owner splices them: overwrite it. */
    list_add_tail(&w->link, &owner_of(d)->watches);
    fmon_account.watches += fmon_linux_counts(w);
    fs_source_add_below(w);
    fmlnx.marks_out_of_reach = 0; /* its file system may be that of marks which no handle could reach */
    return 0;
}

int fmon_linux_del_watch(struct fmon *, struct watch *w)
{
    const bool walked = (w->flags & (FMON_RECURSIVE | FMON_LINUX_FS)) == FMON_RECURSIVE;
    fs_source_remove(w); /* first: what goes with it leaves dentries with a watch alone */
    list_unlink(&w->link);
    if (w->flags & FMON_MOUNT) {
        /* The dentry stays in the cache and in the watch, which its owner frees. */
        fmon_account.watches--;
        fmon_linux_del_mount_watch(w);
        return 0;
    }
    struct dentry *d = w->dentry;
    if (!d)
        return 0;

    fmon_account.watches -= fmon_linux_counts(w);
    struct fmon_masks rec = fmon_linux_recursive_masks(d);
    if (walked)
        fmon_linux_unwatch_subtree(d, rec, {w->fan_mask, w->ino_mask});
    struct fmon_masks remain = masks_or(fmon_linux_own_masks(d), rec);
    int fan_result = fmon_linux_fan_down(d, nullptr, remain.fan, w->fan_mask, w->flags);
    int ino_result = fmon_linux_ino_down(d, remain.ino, w->ino_mask);
    fmon_linux_forget_bare(d);
    fmon_linux_collect(d);
    w->dentry = nullptr;
    return fan_result ? fan_result : ino_result;
}

uint32_t fmon_linux_told(struct dentry *d, uint32_t kinds)
{
    if (!fmon.hardened || list_empty(&owner_of(d)->watches))
        return kinds;
    uint32_t asked = 0;
    FMON_LIST_EACH (node, &owner_of(d)->watches) {
        const struct watch *w = FMON_RECORD(node, struct watch, link);
        asked |= (w->flags & FMON_FILE) ? asked_of_inotify(w) : uint32_t{FMON_ALL_EVENTS};
    }
    return kinds & asked;
}

namespace
{

bool is_nobodys(const struct stat *st) { return !inode_index_find(st->st_dev, st->st_ino); }

/* Takes the marks that the event came by: of its file, when that is what the path leads to, and of the directory there.
 * The file may have been reached by another mount or name, or have been made to look as if; what a dentry stands for is
 * somebody's, however it was reached. */
void take_nobodys_marks(const char *dir, const char *name)
{
    int dir_fd = open(dir, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dir_fd < 0)
        return;
    struct stat event, entry, parent;
    if (fstat(fmlnx.event_fd, &event) == 0 && fstatat(dir_fd, name, &entry, AT_SYMLINK_NOFOLLOW) == 0 &&
        fstatat(dir_fd, "", &parent, AT_EMPTY_PATH) == 0 && entry.st_dev == event.st_dev &&
        entry.st_ino == event.st_ino && is_nobodys(&event)) {
        fmon_linux_take_mark(fmlnx.event_fd, FMON_FILE);
        if (is_nobodys(&parent))
            fmon_linux_take_mark(dir_fd, FMON_DIR);
    }
    close(dir_fd);
}

/* As established: what has the names now. */
void take_marks_by_name(const char *path, char *slash)
{
    int file_fd = fmlnx.fan_fd[FAN_FD_FILE];
    fanotify_del(file_fd, path, FMON_LINUX_FANOTIFY_KINDS, FMON_FILE | FMON_LINUX_LAST_MARK);
    if (!slash)
        return;
    *slash = '\0';
    fanotify_del(file_fd, path, FMON_LINUX_FANOTIFY_KINDS, FMON_DIR | FMON_LINUX_LAST_MARK);
    *slash = '/';
}

}  // namespace

int fmon_linux_punish_unexpected_watch(int fd, char *path)
{
    /* The second position, not the fanotify one: with several inotify-type sources nothing is ever punished. Kept. */
    if (fmlnx.fd_num < 2 || fd != fmlnx.fds[1])
        return 0;
    char *slash = strrchr(path, '/');
    if (!fmon.hardened) {
        take_marks_by_name(path, slash);
    } else if (slash && fmlnx.by_descriptor && fmlnx.event_fd >= 0) {
        *slash = '\0';
        take_nobodys_marks(slash == path ? "/" : path, slash + 1);
        *slash = '/';
    }
    return 0;
}
