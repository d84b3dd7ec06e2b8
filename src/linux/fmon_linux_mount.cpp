/* Mount watches: fanotify marks on whole mounts of the mount table. */
#include <cstdlib>
#include <cstring>

#include "linux/fmon_linux.h"
#include "linux/mount.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

/* How well path `a` covers path `b`: 0 not at all, else the length of `a`. "/home" does not cover "/home2". */
size_t cover_score(const char *a, const char *b)
{
    size_t length = strlen(a);
    if (length < 2)
        return length;
    if (strncmp(a, b, length) != 0 || (b[length] != '\0' && b[length] != '/'))
        return 0;
    return length;
}

uint32_t linked_mask(struct mount_entry *m)
{
    uint32_t mask = 0;
    FMON_LIST_EACH (node, &m->watches)
        mask |= FMON_RECORD(node, struct mount_link, link)->w->fan_mask;
    return mask;
}

void unlink_watch(struct mount_entry *m, const struct watch *w)
{
    FMON_LIST_EACH_SAFE (node, &m->watches) {
        struct mount_link *link = FMON_RECORD(node, struct mount_link, link);
        if (link->w != w)
            continue;
        list_unlink(&link->link);
        free(link);
    }
}

int mark_mount(struct mount_entry *m, struct watch *w)
{
    uint32_t old = linked_mask(m);
    struct mount_link *link = static_cast<struct mount_link *>(calloc(1, sizeof(*link)));
    if (!link)
        return FMON_ENOMEM;
    int result = fmon_linux_fan_up(nullptr, m->mount, nullptr, old, w->fan_mask, FMON_MOUNT);
    if (result < 0) {
        FMON_LOG(1, kFile, "watch mount %s failed\n", m->mount);
        free(link);
        return result;
    }
    link->w = w;
    list_add_tail(&link->link, &m->watches);
    return 0;
}

/* Marks every mount below the watch's path. */
int mark_mounts_below(struct watch *w)
{
    int result = FMON_ENOENT;
    FMON_LIST_EACH (node, &fmlnx.mounts) {
        struct mount_entry *m = FMON_RECORD(node, struct mount_entry, link);
        if (cover_score(w->path, m->mount) == 0)
            continue;
        result = mark_mount(m, w);
        if (result < 0)
            break;
    }
    if (result < 0) {
        /* The kernel's marks stay, but the caller frees the watch: no link may name it. */
        FMON_LIST_EACH (node, &fmlnx.mounts)
            unlink_watch(FMON_RECORD(node, struct mount_entry, link), w);
    }
    return result;
}

/* Marks the mount that the watch's path lies on; the first of equally good ones. */
int mark_mount_of(struct watch *w)
{
    struct mount_entry *best = nullptr;
    size_t best_score = 0;
    FMON_LIST_EACH (node, &fmlnx.mounts) {
        struct mount_entry *m = FMON_RECORD(node, struct mount_entry, link);
        size_t score = cover_score(m->mount, w->path);
        if (score > best_score) {
            best = m;
            best_score = score;
        }
    }
    return best ? mark_mount(best, w) : FMON_ENOENT;
}

/* The container does not see the host's mount table as the host does: the path itself is marked, without a link. */
int mark_container_mount(struct watch *w)
{
    int result = fmon_linux_fan_up(w->dentry, w->path, nullptr, 0, w->fan_mask, FMON_MOUNT);
    if (result < 0)
        FMON_LOG(1, kFile, "watch mount %s failed\n", w->path);
    return result;
}

}  // namespace

int fmon_linux_add_mount_watch(struct watch *w)
{
    if (g_container_flag)
        return mark_container_mount(w);
    return (w->flags & FMON_RECURSIVE) ? mark_mounts_below(w) : mark_mount_of(w);
}

void fmon_linux_del_mount_watch(struct watch *w)
{
    /* Mounts that never carried this watch are asked too, and the kernel refuses that: it is also what takes away the
     * mark of a container's mount watch, which has no link. */
    FMON_LIST_EACH (node, &fmlnx.mounts) {
        struct mount_entry *m = FMON_RECORD(node, struct mount_entry, link);
        unlink_watch(m, w);
        fmon_linux_fan_down(nullptr, m->mount, linked_mask(m), w->fan_mask, FMON_MOUNT);
    }
}
