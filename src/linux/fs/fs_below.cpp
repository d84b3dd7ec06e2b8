/*
 * Mounts below a recursive root. One whose file system can be marked is joined to the directory that it is mounted in,
 * so that its paths follow when directories above it are renamed; one that cannot has marks on its directories, by a
 * watch that only the source knows.
 */
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fmon_status.h"
#include "fmon_watch.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_served.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fs/fs_below.cpp";

struct fs_below *below_of(list_head *node) { return FMON_RECORD(node, struct fs_below, link); }

bool is_served(const struct fs_below *below)
{
    return below->how == FS_BELOW_JOINED || below->how == FS_BELOW_ANCHORED;
}

struct fs_below *find(struct fs_root *root, int mount_id)
{
    FMON_LIST_EACH (node, &root->below)
        if (below_of(node)->mount_id == mount_id)
            return below_of(node);
    return nullptr;
}

/* What failed for that may not fail the next time. */
bool is_passing(int error)
{
    return error == ENOMEM || error == EMFILE || error == ENFILE || error == ENOSPC || error == EAGAIN ||
           error == EINTR || error == EBUSY || error == ENOENT;
}

/* A mount id is given again at once when it is free. */
bool is_still(const struct fs_below *below, const struct fs_mount *mount)
{
    return below->major == mount->major && below->minor == mount->minor && strcmp(below->point, mount->point) == 0 &&
           !below->displaced && (below->how != FS_BELOW_PART || below->part->dentry);
}

/* ---- serving ---- */

/* The directory that a mount point lies in. */
uint32_t look_above(const struct fs_mount *mount, struct fs_look *out, int *error)
{
    const size_t length = static_cast<size_t>(strrchr(mount->point, '/') - mount->point);
    char directory[DCACHE_PATH_MAX];
    if (length >= sizeof directory) {
        *error = ENAMETOOLONG;
        return FMON_FALLBACK_ROOT;
    }
    memcpy(directory, mount->point, length);
    directory[length] = '\0';
    return fs_look_at(length ? directory : "/", false, out, error);
}

bool is_known(struct fs_root *root, int mount_id)
{
    const struct fs_below *above = mount_id == root->mount_id ? nullptr : find(root, mount_id);
    return mount_id == root->mount_id || (above && is_served(above));
}

/* 0 or the engine's code. */
int join(struct fs_root *root, struct fs_below *below, const struct fs_mount *mount, const struct fs_look *look)
{
    struct fs_look above;
    int error;
    if (look_above(mount, &above, &error))
        return FMON_ENOENT;
    close(above.fd);
    if (!is_known(root, above.mount_id)) {
        struct fs_anchor anchor = {look->key.key, below->point, below->id, -1, true};
        below->how = FS_BELOW_ANCHORED;
        return fs_anchor_at(&anchor, below->point, FS_OPEN_MOUNT);
    }
    below->how = FS_BELOW_JOINED;
    fs_pass_all();
    const struct fs_joint joint = {look->key.key, above.key.key, strrchr(below->point, '/') + 1, below->id};
    return fs_engine_join(fs_source.engine, &joint);
}

int errno_of(int result)
{
    if (result == FMON_ENOMEM)
        return ENOMEM;
    return result == FMON_ENOTSUP ? EOPNOTSUPP : ENOENT;
}

void let_system_go(struct fs_below *below)
{
    struct fs_system *system = below->system;
    fs_engine_remove(fs_source.engine, below->id);
    below->system = nullptr;
    if (system)
        fs_system_put(system);
}

/* 0 or FMON_FALLBACK_*. With the source's lock. */
uint32_t serve(struct fs_root *root, struct fs_below *below, const struct fs_mount *mount, const struct fs_look *look,
               int *error)
{
    if (fs_look_opens(look) < 0) {
        *error = errno;
        return look->opens ? FMON_FALLBACK_OPEN : FMON_FALLBACK_HANDLE;
    }
    fs_key_store(&below->key, &look->key.key);
    below->system = fs_system_get(look);
    *error = errno;
    if (!below->system)
        return *error ? FMON_FALLBACK_MEMORY : FMON_FALLBACK_FSID;
    fs_system_renew(below->system, look->fd);
    if (fs_system_mark(below->system, look->fd, root->kinds) < 0) {
        *error = errno;
        let_system_go(below);
        return FMON_FALLBACK_MARK;
    }
    const int result = join(root, below, mount, look);
    if (result == 0)
        return FMON_FALLBACK_NONE;
    *error = errno_of(result);
    let_system_go(below);
    return FMON_FALLBACK_ROOT;
}

/* ---- marks on directories instead ---- */

void place_part(struct fs_root *root, struct fs_below *below)
{
    const struct watch *w = root->watch;
    struct watch *part = w ? watch_new(w->instance, below->point, {w->mask, w->flags, 0, 0}) : nullptr;
    if (!part)
        return;
    part->flags = (w->flags & ~(FMON_LINUX_FS | FMON_DELETED | FMON_ASTERISK | FMON_DYNAMIC)) | FMON_LINUX_PART;
    if (fmon_check_watch(part) < 0 || fmon_linux_add_watch(&fmon, part) < 0) {
        watch_free(part);
        return;
    }
    below->part = part;
}

/* The watch is in no instance's list. */
void take_part(struct fs_below *below)
{
    if (!below->part)
        return;
    if (below->part->dentry)
        fmon_linux_del_watch(&fmon, below->part);
    watch_free(below->part);
    below->part = nullptr;
}

void account(const struct fs_below *below, uint32_t reason, int error)
{
    FMON_LOG(2, kFile, "mount %s is not served by events of its file system (%u, %s), %s\n", below->point, reason,
             strerror(error), below->part ? "its directories are marked" : "left out");
    if (below->part)
        account_fallback(reason, error, below->point);
    else
        account_left_out(reason, error, below->point);
}

/* `again`: it was left out before, which is counted. */
void fall_back(struct fs_root *root, struct fs_below *below, uint32_t reason, int error, bool again)
{
    place_part(root, below);
    below->how = below->part ? FS_BELOW_PART : FS_BELOW_LEFT_OUT;
    below->passing = !below->part && is_passing(error);
    fs_source.retry.due |= below->passing;
    if (below->part || !again)
        account(below, reason, error);
}

/* ---- a look at the table ---- */

/* Not one that another one hides. */
bool look_at_mount(const struct fs_mount *mount, struct fs_look *look, uint32_t *reason, int *error)
{
    *reason = fs_look_at_mount(mount->point, look, error);
    if (*reason)
        return *reason == FMON_FALLBACK_HANDLE;
    if (look->mount_id == mount->id)
        return true;
    *error = EEXIST;
    close(look->fd);
    return false;
}

struct fs_below *new_below(const struct fs_mount *mount)
{
    auto *below = static_cast<struct fs_below *>(calloc(1, sizeof(struct fs_below)));
    const size_t size = strlen(mount->point) + 1;
    char *point = below ? static_cast<char *>(malloc(size)) : nullptr;
    if (!point) {
        free(below);
        return nullptr;
    }
    memcpy(point, mount->point, size);
    below->point = point;
    below->how = FS_BELOW_LEFT_OUT;
    below->seen = true;
    below->id = ++fs_source.next_id;
    below->mount_id = mount->id;
    below->major = mount->major;
    below->minor = mount->minor;
    return below;
}

/* Whether directories of the mount above are marked, and so those of this one. */
bool is_in_part(struct fs_root *root, const struct fs_mount *mount)
{
    const struct fs_below *above = find(root, mount->parent);
    return above && above->how == FS_BELOW_PART;
}

void free_below(struct fs_below *below)
{
    free(below->point);
    free(below);
}

void leave_out_pseudo(struct fs_root *root, struct fs_below *below)
{
    if (root->watch) /* system-wide, these are not meant */
        account_left_out(FMON_FALLBACK_MARK, ENODEV, below->point);
    const FsLock lock;
    list_add_tail(&below->link, &root->below);
}

/* In the list, and served where that can be: *reason and *error say why it cannot. False: nothing is to be seen of it,
 * and it is in no list. */
bool take_up(struct fs_root *root, struct fs_below *below, const struct fs_mount *mount, uint32_t *reason, int *error)
{
    const FsLock lock;
    struct fs_look look;
    if (!look_at_mount(mount, &look, reason, error))
        return false;
    list_add_tail(&below->link, &root->below);
    if (*reason)
        return true;
    *reason = serve(root, below, mount, &look, error);
    close(look.fd);
    return true;
}

void add(struct fs_root *root, const struct fs_mount *mount, bool again)
{
    uint32_t reason;
    int error = ENOMEM;
    struct fs_below *below = new_below(mount);
    if (below && fs_mount_is_pseudo(mount)) {
        leave_out_pseudo(root, below);
    } else if (below && take_up(root, below, mount, &reason, &error)) {
        if (reason)
            fall_back(root, below, reason, error, again);
    } else {
        fs_source.retry.due |= is_passing(error);
        if (below)
            free_below(below);
    }
}

void drop(struct fs_below *below)
{
    {
        const FsLock lock;
        list_unlink(&below->link);
        if (is_served(below))
            let_system_go(below);
    }
    take_part(below);
    free_below(below);
}

/* Its mark may have gone, if what is mounted there now was mounted anew. False: that is something else. */
bool renew(struct fs_below *below)
{
    const FsLock lock;
    if (!fs_is_mounted(below->point, below->mount_id, &below->key.key))
        return false;
    if (below->system->renewed)
        return true;
    const int fd = fs_mount_open(below->mount_id, below->system->fsid, below->point);
    if (fd < 0)
        return false;
    fs_system_renew(below->system, fd);
    close(fd);
    return true;
}

/* Whether what is mounted there is to be seen through that other mount. */
bool shows(int mount_id, const struct fs_mount *mount)
{
    const struct fs_mount *other = fs_mounts_find(&fs_source.mounts, mount_id);
    return other && other != mount && other->major == mount->major && other->minor == mount->minor &&
           (strcmp(other->root, mount->root) == 0 || fs_path_is_below(mount->root, other->root));
}

/* System-wide, what is mounted several times is told once. What has gone is still in the list. */
bool is_repeated(struct fs_root *root, const struct fs_mount *mount)
{
    if (root->watch)
        return false;
    FMON_LIST_EACH (node, &root->below)
        if (below_of(node)->seen && shows(below_of(node)->mount_id, mount))
            return true;
    return shows(root->mount_id, mount);
}

bool is_meant(struct fs_root *root, const struct fs_mount *mount)
{
    return mount->id != root->mount_id && fs_path_is_below(mount->point, root->path) &&
           (root->watch || !fs_mount_is_remote(mount));
}

/* Whether the mount that is known by that id is this one, and is served as it was. */
bool is_in_order(struct fs_below *below, const struct fs_mount *mount)
{
    return is_still(below, mount) && (!is_served(below) || renew(below));
}

/* One that is not known, has changed, or was left out for reasons of the moment. */
void take(struct fs_root *root, const struct fs_mount *mount)
{
    struct fs_below *known = find(root, mount->id);
    if (known && known->seen && !known->passing)
        return;
    const bool again = known && known->seen;
    if (known)
        drop(known);
    if (!is_in_part(root, mount) && !is_repeated(root, mount))
        add(root, mount, again);
}

}  // namespace

/* System-wide, whole file systems come before parts of them that are mounted elsewhere, too. */
void take_all(struct fs_root *root, bool whole)
{
    const struct fs_mounts *mounts = &fs_source.mounts;
    for (size_t i = 0; i < mounts->count; i++) {
        const struct fs_mount *mount = &mounts->all[i];
        if (is_meant(root, mount) && (root->watch || (strcmp(mount->root, "/") == 0) == whole))
            take(root, mount);
    }
}

/* What came has its place before what went loses it: the file system of both keeps its mark. */
void fs_below_update(struct fs_root *root)
{
    FMON_LIST_EACH (node, &root->below) {
        struct fs_below *below = below_of(node);
        const struct fs_mount *mount = fs_mounts_find(&fs_source.mounts, below->mount_id);
        below->seen = mount && is_meant(root, mount) && is_in_order(below, mount);
    }
    take_all(root, true);
    if (!root->watch)
        take_all(root, false);
    FMON_LIST_EACH_SAFE (node, &root->below)
        if (!below_of(node)->seen)
            drop(below_of(node));
}

bool fs_below_serves(struct fs_root *root)
{
    FMON_LIST_EACH (node, &root->below)
        if (is_served(below_of(node)))
            return true;
    return false;
}

void fs_below_forget(struct fs_root *root)
{
    FMON_LIST_EACH_SAFE (node, &root->below) {
        struct fs_below *below = below_of(node);
        list_unlink(&below->link);
        if (below->part)
            watch_free(below->part);
        free(below->point);
        free(below);
    }
}

void fs_below_release(struct fs_root *root)
{
    FMON_LIST_EACH_SAFE (node, &root->below)
        drop(below_of(node));
}
