/* Keeping the cached tree and the kernel marks in step: subtrees that are watched, unwatched, moved, made or gone. */
#include <cstring>

#include "event.h"
#include "linux/dcache_iterate.h"
#include "linux/fmon_linux.h"
#include "linux/inotify.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

union fmon_walk_data walk_data(struct fmon_masks masks)
{
    union fmon_walk_data data = {};
    data.m = masks;
    return data;
}

struct fmon_masks masks_in(const unsigned char *block)
{
    struct fmon_masks masks;
    memcpy(&masks, block, sizeof(masks));
    return masks;
}

void put_masks(unsigned char *block, struct fmon_masks masks) { memcpy(block, &masks, sizeof(masks)); }

bool no_watches(struct dentry *d) { return list_empty(&owner_of(d)->watches); }

bool no_children(const struct dentry *d) { return list_empty(&d->children); }

/* The two middle numbers are 1 when there are NO watches and NO children: the log's established reading. */
void log_dentry(struct dentry *d, struct fmon_masks masks)
{
    FMON_LOG(4, kFile, "dentry %s watches %d subdirs %d fe %x ie %x\n", dentry_path(d), no_watches(d), no_children(d),
             masks.fan, masks.ino);
}

/*
 * Walks the cached subtree below `start`, `base` being what its directories inherit, and calls visit(dentry, masks)
 * once for each dentry, children before their parent. `masks` is what the dentry needs: what it inherits and what its
 * own watches want. visit may free the dentry.
 */
template <typename Visit>
void for_each_below(struct dentry *start, struct fmon_masks base, Visit visit)
{
    union fmon_walk_data data = walk_data(base);
    struct dcache_traverse walk;
    dcache_traverse_start(&walk, start, data.raw);
    while (struct dentry *d = dcache_traverse_next_safe(&walk)) {
        struct fmon_masks inherited = masks_in(walk.cur.data);
        if (walk.state == DCACHE_ENTER)
            put_masks(walk.ret.data, masks_or(inherited, fmon_linux_recursive_own_masks(d)));
        else
            visit(d, masks_or(inherited, fmon_linux_own_masks(d)));
    }
    dcache_traverse_end(&walk);
}

/* Whether a recursive directory watch covers the dentry; *watched: the first dentry on the way up with any watch. */
bool covered_by_recursive(struct dentry *d, struct dentry **watched)
{
    *watched = nullptr;
    for (; d; d = d->parent) {
        FMON_LIST_EACH (node, &owner_of(d)->watches) {
            constexpr uint32_t kTree = FMON_DIR | FMON_RECURSIVE;
            if ((FMON_RECORD(node, struct watch, link)->flags & kTree) == kTree)
                return true;
            if (!*watched)
                *watched = d;
        }
    }
    return false;
}

}  // namespace

int fmon_linux_mark_subtree(struct dentry *start, int32_t max_depth, int32_t max_subdirs, struct fmon_masks base)
{
    union fmon_walk_data data = walk_data(base);
    struct dcache_iterate walk;
    if (dcache_iterate_start(&fmon.dcache, start, &walk, max_depth, max_subdirs, data.raw) < 0) {
        FMON_LOG(2, kFile, "iterate %s failed\n", dentry_path(start));
        return FMON_ENOENT;
    }
    while (struct dentry *d = dcache_iterate_next(&walk)) {
        struct fmon_masks inherited = masks_or(masks_in(walk.cur.data), fmon_linux_recursive_own_masks(d));
        put_masks(walk.pending.data, inherited);
        struct fmon_masks masks = masks_or(inherited, fmon_linux_own_masks(d));
        fmon_linux_fan_up(d, nullptr, 0, masks.fan, FMON_DIR);
        fmon_linux_ino_up(d, 0, masks.ino);
    }
    dcache_iterate_stop(&walk);
    return 0;
}

void fmon_linux_unwatch_subtree(struct dentry *start, struct fmon_masks inherited, struct fmon_masks removed)
{
    FMON_LOG(4, kFile, "unwatch subdirs: %s\n", dentry_path(start));
    for_each_below(start, inherited, [removed](struct dentry *d, struct fmon_masks remain) {
        log_dentry(d, remain);
        fmon_linux_fan_down(d, nullptr, remain.fan, removed.fan, FMON_DIR);
        fmon_linux_ino_down(d, remain.ino, removed.ino);
        if (!no_watches(d) || !no_children(d) || remain.fan || remain.ino)
            return;
        FMON_LOG(4, kFile, "dentry %s removed\n", dentry_path(d));
        if (fmon_linux_drop_dentry(d) < 0)
            FMON_LOG(1, kFile, "remove dentry failed\n");
    });
}

int fmon_linux_drop_dentry(struct dentry *d)
{
    /* A directory can be left with a watch that no mask accounts for. Freed as it is, its next event would be looked
     * up through a dangling entry. */
    int wd = owner_of(d)->wd;
    if (d->parent && no_children(d) && wd >= 0 && seq_get(&fmlnx.seq, wd) == reinterpret_cast<uintptr_t>(d)) {
        inotify_del(wd);
        seq_set(&fmlnx.seq, wd, SEQ_POISON);
        owner_of(d)->wd = -1;
    }
    return dcache_del(&fmon.dcache, d);
}

void fmon_linux_collect(struct dentry *d)
{
    struct dentry *watched;
    if (covered_by_recursive(d, &watched))
        return;
    while (d && d != watched && d->parent && no_children(d)) {
        struct dentry *parent = d->parent;
        FMON_LOG(4, kFile, "collect dentry %s\n", dentry_path(d));
        if (fmon_linux_drop_dentry(d) < 0) {
            FMON_LOG(1, kFile, "collect dentry failed\n");
            return;
        }
        d = parent;
    }
}

void fmon_linux_punish(struct dentry *d, uint32_t fe, uint32_t ie)
{
    FMON_LIST_EACH_SAFE (node, &owner_of(d)->watches) {
        struct watch *w = FMON_RECORD(node, struct watch, link);
        if (w->flags & FMON_MOUNT)
            continue;
        list_unlink(&w->link);
        w->dentry = nullptr;
        watch_out_service(&fmon, w); /* may free it */
    }
    if (fe != 0)
        FMON_LOG(2, kFile, "fanotify file path lost, can't remove\n");
    fmon_linux_ino_down(d, 0, ie);
    if (!no_watches(d) || !no_children(d))
        return;
    FMON_LOG(4, kFile, "dentry %s punished\n", dentry_path(d));
    if (fmon_linux_drop_dentry(d) < 0)
        FMON_LOG(1, kFile, "remove dentry failed\n");
}

void fmon_linux_moved_away(struct dentry *d)
{
    FMON_LOG(4, kFile, "collect moved dentry %s\n", dentry_path(d));
    struct fmon_masks rec = fmon_linux_recursive_masks(d);
    for_each_below(d, rec, [](struct dentry *below, struct fmon_masks masks) {
        log_dentry(below, masks);
        fmon_linux_punish(below, masks.fan, masks.ino);
    });

    struct dentry *parent = d->parent;
    struct fmon_masks masks = masks_or(rec, fmon_linux_own_masks(d));
    fmon_linux_punish(d, masks.fan, masks.ino);
    fmon_linux_collect(parent);
}

int fmon_linux_new_subdir(struct dentry *parent, const char *name, int moved)
{
    struct fmon_masks rec = fmon_linux_recursive_masks(parent);
    if (rec.fan == 0 && rec.ino == 0)
        return 0;
    bool known = dcache_find_sub(&fmon.dcache, parent, name) != nullptr;
    struct dentry *d = dcache_add_sub(&fmon.dcache, parent, name);
    if (!d && moved) {
        FMON_LOG(2, kFile, "add sub failed\n");
        return 0;
    }
    if (!d) {
        FMON_LOG(2, kFile, "add sub dentry failed: %s sub %s\n", dentry_path(parent), name);
        return -1;
    }
    if (!moved)
        FMON_LOG(4, kFile, "monitor new dir: %s fanotify %s, inotify %s\n", dentry_path(d), event_str(rec.fan),
                 event_str2(rec.ino));

    fmon_linux_fan_up(d, nullptr, 0, rec.fan, FMON_DIR);
    int result = fmon_linux_ino_up(d, 0, rec.ino);
    /* A directory that was gone again before it could be watched never gets an IN_IGNORED: nothing else would free it,
     * and such pairs would fill the cache. */
    if (result < 0 && !known && no_watches(d) && no_children(d) && owner_of(d)->wd < 0) {
        dcache_del(&fmon.dcache, d);
        return 0;
    }
    /* What a created directory holds by now is not walked, and no depth limit applies: established behaviour. */
    if (moved)
        fmon_linux_mark_subtree(d, 0, 0, rec);
    return 0;
}
