/*
 * A directory of a watched tree looked at anew, after records of changes were lost: what is known of it may be wrong in
 * any way. A watch descriptor may be dead without a word, and a new directory may have the inode number of the one that
 * was known; so the marks are always placed again, and the kernel says whether they are new.
 */
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "list.h"

namespace
{

bool no_watches(struct dentry *d) { return list_empty(&owner_of(d)->watches); }

/* Whether there is no directory, as far as that can be said. */
bool is_gone(const char *path)
{
    struct stat st;
    if (lstat(path, &st) == 0)
        return !S_ISDIR(st.st_mode);
    return errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG;
}

/* What is watched in its own right is left to the upkeep of watches. */
void forget_gone(struct dentry *d)
{
    FMON_LIST_EACH_SAFE (node, &d->children) {
        struct dentry *child = FMON_RECORD(node, struct dentry, sibling);
        const char *path = dentry_path_null(child);
        if (path && no_watches(child) && is_gone(path))
            fmon_linux_moved_away(child);
    }
}

/* 1: it carries a mark that it did not carry, 0: it carried its marks, else the code of the refusal. */
int mark_again(struct dentry *parent, const char *name)
{
    struct dentry *d = dcache_find_sub(&fmon.dcache, parent, name);
    const int32_t wd = d ? owner_of(d)->wd : -1;
    const bool fan_mark = d && (d->owner_bits & DENTRY_FAN_MARK);
    const uint64_t refusals = fmon_account.refusals;
    fmon_linux_new_subdir(parent, name, 0);
    if (fmon_account.refusals != refusals)
        return fmon_account.last_refusal.reason == FMON_LEFT_GONE ? FMON_ENOENT : fmon_account.last_refusal.code;
    d = dcache_find_sub(&fmon.dcache, parent, name);
    if (!d)
        return FMON_ENOENT;
    if (owner_of(d)->wd >= 0)
        return owner_of(d)->wd != wd;
    return (d->owner_bits & DENTRY_FAN_MARK) && !fan_mark;
}

/* The cached directory above, whose last component's name is returned; null: there is none. */
const char *find_parent(const char *path, struct dentry **parent)
{
    char above[DCACHE_PATH_MAX];
    const char *slash = strrchr(path, '/');
    const size_t length = slash ? static_cast<size_t>(slash - path) : 0;
    if (!slash || slash[1] == '\0' || length >= sizeof(above))
        return nullptr;
    memcpy(above, path, length);
    above[length] = '\0';
    *parent = length ? dcache_find(&fmon.dcache, above) : fmon.dcache.root;
    return *parent ? slash + 1 : nullptr;
}

bool wants_marks(struct fmon_masks masks) { return masks.fan || masks.ino; }

}  // namespace

int fmon_linux_resync(const char *path, uint32_t what)
{
    struct dentry *parent;
    const char *name = find_parent(path, &parent);
    const bool inherits = name && wants_marks(fmon_linux_recursive_masks_of(parent, name));
    struct dentry *d = dcache_find(&fmon.dcache, path);
    if ((!inherits && (!d || !wants_marks(fmon_linux_recursive_masks(d)))) || is_gone(path))
        return FMON_ENOENT;
    int result = d ? 0 : FMON_ENOENT;
    if (inherits && (what & FMON_RESYNC_MARK)) {
        result = mark_again(parent, name);
        d = dcache_find(&fmon.dcache, path);
    }
    if (d && (what & FMON_RESYNC_FORGET))
        forget_gone(d);
    return result;
}
