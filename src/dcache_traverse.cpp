/*
 * A walk with a stack of its own: trees are as deep as users make them, and the thread's stack is not. What the walk
 * will visit next is known before the caller gets the dentry, so that the caller may delete it; the directories on the
 * stack are ancestors, which have children and so cannot be deleted.
 */
#include "dcache.h"

#include <cstdlib>
#include <cstring>

#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "dcache.c";

/* A level above the current one. */
struct saved_frame {
    list_head link;
    struct dcache_frame frame;
};

/* The directory returned last becomes the current one, and its block the one that its children see. */
void descend(struct dcache_traverse *t)
{
    struct saved_frame *saved = static_cast<struct saved_frame *>(malloc(sizeof(struct saved_frame)));
    if (!saved) {
        FMON_LOG(1, kFile, "dir malloc failed\n");
        return; /* the subtree is skipped, and its directory gets no second visit */
    }
    saved->frame = t->cur;
    list_add(&saved->link, &t->stack);
    t->cur = t->ret;
    t->ret = {};
    t->cursor = nullptr;
}

/* Takes the top frame off the stack, which holds one. */
struct dcache_frame pop(struct dcache_traverse *t)
{
    struct saved_frame *saved = FMON_RECORD(t->stack.next, struct saved_frame, link);
    const struct dcache_frame frame = saved->frame;
    list_unlink(&saved->link);
    free(saved);
    return frame;
}

/* The next child of the current directory, or null. The cursor is past it before the caller can delete it. */
struct dentry *take_child(struct dcache_traverse *t)
{
    list_head *head = &t->cur.d->children;
    list_head *node = t->cursor ? t->cursor : head->next; /* not set is not the end: the end is the head */
    if (node == head) {
        t->cursor = head;
        return nullptr;
    }
    t->cursor = node->next;
    return FMON_RECORD(node, struct dentry, sibling);
}

/* Goes back to the level above; the directory that was current becomes the returned one, block and all. */
struct dentry *leave(struct dcache_traverse *t)
{
    t->ret = t->cur;
    t->cur = pop(t);
    t->cursor = t->ret.d->sibling.next;
    t->state = DCACHE_LEAVE;
    return t->ret.d;
}

}  // namespace

void dcache_traverse_start(struct dcache_traverse *t, struct dentry *start, const void *data)
{
    *t = {};
    list_init(&t->stack);
    t->cur.d = start;
    if (data)
        memcpy(t->cur.data, data, sizeof(t->cur.data));
}

struct dentry *dcache_traverse_next_safe(struct dcache_traverse *t)
{
    if (t->ret.d && t->state == DCACHE_ENTER)
        descend(t);
    struct dentry *child = take_child(t);
    if (!child && !list_empty(&t->stack))
        return leave(t);
    t->ret = {child, {}};
    t->state = child && !list_empty(&child->children) ? DCACHE_ENTER : DCACHE_LEAF;
    return child;
}

void dcache_traverse_end(struct dcache_traverse *t)
{
    while (!list_empty(&t->stack))
        pop(t);
}
