/* Keeping the cached tree and the kernel marks in step: subtrees that are watched, unwatched, moved, made or gone. */
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "event.h"
#include "fmon_status.h"
#include "linux/dcache_iterate.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_source.h"
#include "linux/inode_index.h"
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

/* What a dentry of a walk inherits: what its parent hands down, without the watches that spare the dentry. */
struct fmon_masks inherited_at(struct dentry *d, struct fmon_masks handed_down)
{
    if (!fmon_any_spares(d))
        return handed_down;
    struct fmon_masks masks = fmon_linux_recursive_masks_of(d->parent, dentry_name(d));
    const struct watch *w = fmlnx.placing;
    return w && !fmon_spares(w, d, nullptr) ? masks_or(masks, {w->fan_mask, w->ino_mask}) : masks;
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
        struct fmon_masks inherited = inherited_at(d, masks_in(walk.cur.data));
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
            if ((FMON_RECORD(node, struct watch, link)->flags & (kTree | FMON_LINUX_FS)) == kTree)
                return true;
            if (!*watched)
                *watched = d;
        }
    }
    return false;
}

/* Lets go of everything below a directory that is not at its place any more; `rec`: what is inherited there. */
void let_go_below(struct dentry *d, struct fmon_masks rec)
{
    for_each_below(d, rec, [](struct dentry *below, struct fmon_masks masks) {
        log_dentry(below, masks);
        fmon_linux_punish(below, masks.fan, masks.ino);
    });
}

bool has_served_watch(struct dentry *d)
{
    FMON_LIST_EACH (node, &owner_of(d)->watches)
        if (FMON_RECORD(node, struct watch, link)->flags & FMON_LINUX_FS)
            return true;
    return false;
}

bool is_bare(struct dentry *d) { return no_watches(d) && no_children(d) && !fmon_linux_marked(d); }

/* Marks one directory as an entry of the stream that the walk reads. */
void mark_entry(const struct dcache_iterate *walk, struct dentry *d, struct fmon_masks masks)
{
    struct fmon_place at;
    account_attempt();
    fmon_linux_set_file(d, false);
    if (fmon_linux_place_open_at(&at, d, dirfd(walk->cur.dir)) < 0)
        return;
    if (at.replaced)
        let_go_below(d, masks);
    fmon_linux_fan_up(d, nullptr, &at, 0, masks.fan, FMON_DIR);
    fmon_linux_ino_up(d, &at, 0, masks.ino);
    fmon_linux_place_close(&at);
    fmon_linux_forget_bare(d);
}

/* Frees what a walk cached and could not mark: nothing else would, and it would fill the cache. */
void drop_bare_below(struct dentry *start)
{
    for_each_below(start, {0, 0}, [](struct dentry *d, struct fmon_masks) {
        if (is_bare(d) && fmon_linux_drop_dentry(d) < 0)
            FMON_LOG(1, kFile, "remove dentry failed\n");
    });
}

/* Whether the walk begins in the directory that `start` stands for; where the index is not kept it is taken so. */
bool walks_in_place(const struct dcache_iterate *walk, struct dentry *start)
{
    struct stat st;
    return !fmlnx.by_descriptor ||
           (fstat(dirfd(walk->cur.dir), &st) == 0 && inode_index_is(start, st.st_dev, st.st_ino));
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
    if (!walks_in_place(&walk, start)) {
        FMON_LOG(2, kFile, "%s is another directory now, not walked\n", dentry_path(start));
        dcache_iterate_stop(&walk);
        return FMON_ENOENT;
    }
    bool some_bare = false;
    while (struct dentry *d = dcache_iterate_next(&walk)) {
        struct fmon_masks handed_down = inherited_at(d, masks_in(walk.cur.data));
        struct fmon_masks inherited = masks_or(handed_down, fmon_linux_recursive_own_masks(d));
        put_masks(walk.pending.data, inherited);
        struct fmon_masks masks = masks_or(inherited, fmon_linux_own_masks(d));
        if (fmon.spared && masks.fan == 0 && masks.ino == 0)
            walk.pending.d = nullptr; /* spared, with all that is below */
        else
            mark_entry(&walk, d, masks);
        some_bare |= !fmon_linux_marked(d);
    }
    dcache_iterate_stop(&walk);
    if (some_bare)
        drop_bare_below(start);
    return 0;
}

void fmon_linux_unwatch_subtree(struct dentry *start, struct fmon_masks inherited, struct fmon_masks removed)
{
    FMON_LOG(4, kFile, "unwatch subdirs: %s\n", dentry_path(start));
    for_each_below(start, inherited, [removed](struct dentry *d, struct fmon_masks remain) {
        log_dentry(d, remain);
        fmon_linux_fan_down(d, nullptr, remain.fan, removed.fan, FMON_DIR);
        fmon_linux_ino_down(d, remain.ino, removed.ino);
        fmon_linux_forget_bare(d);
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
    }
    if (d->parent && no_children(d)) {
        fmon_linux_set_wd(d, -1);
        fmon_linux_lost_mark(d);
        inode_index_remove(d);
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
    if (has_served_watch(d))
        fs_source_catch_up(&fmon); /* what is there to be read was before this end */
    FMON_LIST_EACH_SAFE (node, &owner_of(d)->watches) {
        struct watch *w = FMON_RECORD(node, struct watch, link);
        if (w->flags & FMON_MOUNT)
            continue;
        fs_source_remove(w); /* first: what goes with it leaves dentries with a watch alone */
        list_unlink(&w->link);
        w->dentry = nullptr;
        fmon_account.watches -= fmon_linux_counts(w);
        watch_out_service(&fmon, w); /* may free it */
    }
    if (fe != 0)
        FMON_LOG(2, kFile, "fanotify file path lost, can't remove\n");
    fmon_linux_lost_mark(d);
    fmon_linux_ino_down(d, 0, ie);
    fmon_linux_forget_bare(d);
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
    let_go_below(d, rec);

    struct dentry *parent = d->parent;
    struct fmon_masks masks = masks_or(rec, fmon_linux_own_masks(d));
    fmon_linux_punish(d, masks.fan, masks.ino);
    fmon_linux_collect(parent);
}

namespace
{

/* What a directory at the dentry's name has to carry: what it inherits and, hardened, what watches of its own want. */
struct fmon_masks wanted_at(struct dentry *d, struct fmon_masks inherited)
{
    return fmon.hardened && d ? masks_or(inherited, fmon_linux_dir_masks(d)) : inherited;
}

int refuse_new(struct dentry *parent, const char *name, int moved)
{
    if (moved)
        FMON_LOG(2, kFile, "add sub failed\n");
    else
        FMON_LOG(2, kFile, "add sub dentry failed: %s sub %s\n", dentry_path(parent), name);
    account_refused(FMON_LEFT_CACHE_FULL, FMON_STEP_CACHE, FMON_ENOMEM, 0, _dentry_path(parent, name));
    return moved ? 0 : -1;
}

/* `rec`: what the directory inherits. */
void mark_new(struct dentry *d, struct fmon_masks rec, int moved)
{
    struct fmon_place at;
    fmon_linux_set_file(d, false);
    if (fmon_linux_place_open_child(&at, d) < 0)
        return;
    if (at.replaced)
        let_go_below(d, fmon_linux_recursive_masks(d));
    struct fmon_masks masks = wanted_at(d, rec);
    fmon_linux_fan_up(d, nullptr, &at, 0, masks.fan, FMON_DIR);
    fmon_linux_ino_up(d, &at, 0, masks.ino);
    fmon_linux_place_close(&at);
    /* What a created directory holds by now is not walked, and no depth limit applies: established behaviour. A moved
     * one is walked even when it could not be marked itself. */
    if (moved)
        fmon_linux_mark_subtree(d, 0, 0, fmon.hardened ? fmon_linux_recursive_masks(d) : rec);
}

}  // namespace

int fmon_linux_new_subdir(struct dentry *parent, const char *name, int moved)
{
    struct fmon_masks rec = fmon_linux_recursive_masks_of(parent, name);
    struct dentry *d = dcache_find_sub(&fmon.dcache, parent, name);
    struct fmon_masks masks = wanted_at(d, rec);
    if (masks.fan == 0 && masks.ino == 0)
        return 0;
    bool known = d != nullptr;
    account_attempt();
    d = dcache_add_sub(&fmon.dcache, parent, name);
    if (!d)
        return refuse_new(parent, name, moved);
    if (!moved)
        FMON_LOG(4, kFile, "monitor new dir: %s fanotify %s, inotify %s\n", dentry_path(d), event_str(masks.fan),
                 event_str2(masks.ino));
    mark_new(d, rec, moved);
    fmon_linux_forget_bare(d);
    /* Nothing would free it: no IN_IGNORED comes for what carries nothing, and such dentries would fill the cache. */
    if (!known && is_bare(d))
        fmon_linux_drop_dentry(d);
    return 0;
}

void fmon_linux_departed(struct dentry *child)
{
    int found = fmon_linux_in_place(child);
    if (found == PLACE_SAME) /* what went by this name was another one, before */
        return;
    /* Its watches want what is at the path: that is marked in its stead. */
    if (found == PLACE_OTHER_DIR && !no_watches(child))
        fmon_linux_new_subdir(child->parent, dentry_name(child), 1);
    else
        fmon_linux_moved_away(child);
}

namespace
{

/* Whether another directory is at the watch's path, by no way but directories: who put a link there decides nothing. */
bool was_replaced(const struct watch *w)
{
    char resolved[PATH_MAX];
    return w->dentry && w->dentry->parent && (w->flags & FMON_DIR) &&
           fmon_linux_in_place(w->dentry) == PLACE_OTHER_DIR && realpath(w->path, resolved) &&
           strcmp(resolved, w->path) == 0;
}

}  // namespace

void fmon_linux_check_places(uint32_t now_ms)
{
    if (!fmlnx.by_descriptor || now_ms - fmlnx.last_check < fmon.tbd_interval)
        return;
    fmlnx.last_check = now_ms;
    for (int id = 0; id < FMON_MAX_INSTANCES; id++) {
        if (!(fmon.inst_mask & instance_bit(id)))
            continue;
        FMON_LIST_EACH (node, &fmon.instances[id].watches) {
            const struct watch *w = FMON_RECORD(node, struct watch, inst_link);
            if (!was_replaced(w))
                continue;
            fmon_linux_departed(w->dentry);
            return; /* watches below may be gone from the list */
        }
    }
}

void fmon_linux_removed(struct dentry *child)
{
    if (owner_of(child)->wd >= 0 || !no_watches(child) || !no_children(child))
        return;
    fmon_linux_set_fan_mark(child, false); /* gone with the directory */
    fmon_linux_drop_dentry(child);
}

namespace
{

/* A file's mark serves file watches alone; a directory is marked as one whatever inherits from it. */
uint32_t type_of(struct dentry *d)
{
    FMON_LIST_EACH (node, &owner_of(d)->watches) {
        if (FMON_RECORD(node, struct watch, link)->flags & FMON_FILE)
            return FMON_FILE;
    }
    return FMON_DIR;
}

void place_mark_anew(struct dentry *d, uint32_t mask)
{
    if (!(d->owner_bits & DENTRY_FAN_MARK))
        return;
    fmon_linux_set_fan_mark(d, false);
    struct fmon_place at;
    account_attempt();
    if (fmon_linux_place_reopen(&at, d) < 0)
        return; /* its departure is still to be read */
    fmon_linux_fan_up(d, nullptr, &at, 0, mask, type_of(d));
    fmon_linux_place_close(&at);
}

}  // namespace

void fmon_linux_place_marks_anew(void)
{
    struct dentry *root = fmon.dcache.root;
    place_mark_anew(root, fmon_linux_own_masks(root).fan);
    for_each_below(root, fmon_linux_recursive_own_masks(root),
                   [](struct dentry *d, struct fmon_masks masks) { place_mark_anew(d, masks.fan); });
}
