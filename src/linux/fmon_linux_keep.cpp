/* What a record of a watch descriptor means for the cached tree. */
#include <sys/inotify.h>

#include "linux/fmon_linux.h"
#include "linux/inode_index.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

using tree_step = void (*)(struct dentry *, const char *, int);

struct dentry *next_sharer(int32_t wd, const struct dentry *last)
{
    struct dentry *d = fmon_linux_live_dentry(wd);
    return d && (d->owner_bits & DENTRY_INDEXED) ? inode_index_above(d, last) : nullptr;
}

/* A directory that is bound elsewhere in a watched tree, or a file with several names, has one watch descriptor for
 * several dentries, and one record of each change. The change is one for all of them: the one whose path the
 * record is reported by comes last, so that what is marked below is reported by the same way. Each step may free any
 * dentry. */
void take_step(int32_t wd, tree_step step, const char *name, int is_dir)
{
    struct dentry *const reported = fmon_linux_live_dentry(wd);
    const struct dentry *last = nullptr;
    while (struct dentry *other = next_sharer(wd, last)) {
        last = other;
        if (other != reported)
            step(other, name, is_dir);
    }
    if (struct dentry *d = fmon_linux_live_dentry(wd))
        step(d, name, is_dir);
}

/* Another dentry than the one that has the watch descriptor, which lives no longer than that. */
struct dentry *other_with(int32_t wd)
{
    struct dentry *d = fmon_linux_live_dentry(wd), *other = nullptr;
    if (d && (d->owner_bits & DENTRY_INDEXED))
        other = inode_index_first(d);
    while (other && (other == d || owner_of(other)->wd != wd))
        other = inode_index_next(other);
    return other;
}

void let_go(struct dentry *d)
{
    struct dentry *parent = d->parent;
    fmon_linux_set_wd(d, -1);
    FMON_LOG(4, kFile, "ignore dentry %s\n", dentry_path(d));
    fmon_linux_punish(d, 0, 0);
    fmon_linux_collect(parent);
}

}  // namespace

struct dentry *fmon_linux_live_dentry(int32_t wd)
{
    uint64_t value = seq_get(&fmlnx.seq, wd);
    return value == 0 || value == SEQ_POISON ? nullptr
                                             : reinterpret_cast<struct dentry *>(static_cast<uintptr_t>(value));
}

/* What a directory that is not known (any more) says of itself is nothing that is missed: such records are still to
 * come when the monitor itself lets go of a watch, as of one whose path another directory took. What happens to an
 * entry while another processor is taking its directory's watch away is reported behind the IN_IGNORED of that; the
 * kernel gives rising numbers, so that a number which was given before is that of a watch which was taken away. */
void fmon_linux_unknown_wd(int32_t wd, const char *name)
{
    fmlnx.unknown_wd_count++;
    fmon.lost.unknown_wd += name && wd > fmlnx.highest_wd;
    fmlnx.read_status |= READ_UNKNOWN_WD;
}

void fmon_linux_keep_tree(int32_t wd, uint32_t mask, const char *name)
{
    static constexpr struct {
        uint32_t bit;
        tree_step take;
    } steps[] = {
        {IN_CREATE, fmon_linux_on_create},     {IN_MOVED_FROM, fmon_linux_on_moved_from},
        {IN_MOVED_TO, fmon_linux_on_moved_to}, {IN_MOVE_SELF, fmon_linux_on_move_self},
        {IN_DELETE, fmon_linux_on_delete},     {IN_ATTRIB, fmon_linux_on_attrib},
    };
    const int is_dir = (mask & IN_ISDIR) != 0;
    if (name && !is_dir)
        return; /* no part of the tree */
    for (const auto &step : steps)
        if (mask & step.bit)
            take_step(wd, step.take, name, is_dir);
}

int fmon_linux_ignored(int wd)
{
    uint64_t value = seq_get(&fmlnx.seq, wd);
    if (value == 0) {
        FMON_LOG(1, kFile, "ignore: can't find seq of wd: %d\n", wd);
        fmon_linux_unknown_wd(wd, nullptr);
        return -1;
    }
    if (value == SEQ_POISON) {
        FMON_LOG(4, kFile, "inotify ignore del poison wd %d\n", wd);
        if (seq_del(&fmlnx.seq, wd) < 0)
            FMON_LOG(1, kFile, "ignore del poison seq failed, wd %d\n", wd);
        return 0;
    }
    while (struct dentry *other = other_with(wd))
        let_go(other);
    struct dentry *d = fmon_linux_live_dentry(wd);
    if (seq_del(&fmlnx.seq, wd) < 0)
        FMON_LOG(1, kFile, "ignore del seq failed, wd %d\n", wd);
    if (d)
        let_go(d);
    return 0;
}

void fmon_linux_on_create(struct dentry *d, const char *name, int is_dir)
{
    if (is_dir && name)
        fmon_linux_new_subdir(d, name, 0);
}

void fmon_linux_on_moved_from(struct dentry *d, const char *name, int is_dir)
{
    if (!is_dir || !name)
        return;
    FMON_LOG(4, kFile, "inotify moved from: %s (%s) %s\n", dentry_path(d), name, "dir");
    struct dentry *child = dcache_find_sub(&fmon.dcache, d, name);
    if (child)
        fmon_linux_departed(child);
    else
        FMON_LOG(4, kFile, "No sub dentry\n");
}

void fmon_linux_on_moved_to(struct dentry *d, const char *name, int is_dir)
{
    if (!is_dir || !name)
        return;
    FMON_LOG(4, kFile, "inotify moved to: %s (%s) %s\n", dentry_path(d), name, "dir");
    fmon_linux_new_subdir(d, name, 1);
}

/* Not for directories only: the kernel does not say what moved. The line's words are those of the arrival too. */
void fmon_linux_on_move_self(struct dentry *d, const char *name, int is_dir)
{
    FMON_LOG(4, kFile, "inotify moved to: %s (%s) %s\n", dentry_path(d), name ? name : "", is_dir ? "dir" : "file");
    if (fmon_linux_in_place(d) != PLACE_SAME) /* it is back already, or never was what moved */
        fmon_linux_moved_away(d);
}

void fmon_linux_on_delete(struct dentry *d, const char *name, int is_dir)
{
    struct dentry *child = fmon.hardened && is_dir && name ? dcache_find_sub(&fmon.dcache, d, name) : nullptr;
    if (child)
        fmon_linux_removed(child);
}

/* The last sign of life of a file whose name was given to another one while somebody holds it open. */
void fmon_linux_on_attrib(struct dentry *d, const char *name, int)
{
    if (name || list_empty(&owner_of(d)->watches))
        return;
    int found = fmon_linux_in_place(d);
    if (found == PLACE_GONE || found == PLACE_OTHER_DIR)
        fmon_linux_moved_away(d);
}
