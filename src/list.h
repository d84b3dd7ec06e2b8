/*
 * list.h: operations on the intrusive lists and chains of orx_list.h.
 *
 * Taking a node out poisons it; taking out a null, never linked or poisoned node does nothing. The poison protects a
 * live record only: once a record or a list head is freed, nothing helps. A walk over a list whose nodes may leave it
 * during a step takes the next node before the step.
 */
#ifndef FMON_LIST_H
#define FMON_LIST_H

#include <cstddef>
#include <cstdint>

#include "orx_list.h"

inline list_head *list_poison_next() { return reinterpret_cast<list_head *>(static_cast<uintptr_t>(FMON_POISON_NEXT)); }
inline list_head *list_poison_prev() { return reinterpret_cast<list_head *>(static_cast<uintptr_t>(FMON_POISON_PREV)); }

inline void list_init(list_head *head) { head->next = head->prev = head; }

/* A head that was never initialised (zeroed storage) counts as empty. */
inline bool list_empty(const list_head *head) { return head->next == nullptr || head->next == head; }

inline void list_poison(list_head *node)
{
    node->next = list_poison_next();
    node->prev = list_poison_prev();
}

inline bool list_linked(const list_head *node)
{
    return node && node->next && node->prev && node->next != list_poison_next() && node->prev != list_poison_prev();
}

/* Links the node whatever it holds: an old membership is forgotten, not undone. */
inline void list_insert(list_head *node, list_head *before, list_head *after)
{
    node->prev = before;
    node->next = after;
    before->next = node;
    after->prev = node;
}

inline void list_add(list_head *node, list_head *head) { list_insert(node, head, head->next); }
inline void list_add_tail(list_head *node, list_head *head) { list_insert(node, head->prev, head); }

inline void list_unlink(list_head *node)
{
    if (!list_linked(node))
        return;
    node->next->prev = node->prev;
    node->prev->next = node->next;
    list_poison(node);
}

inline void hlink_poison(hlink *node)
{
    node->next = reinterpret_cast<hlink *>(static_cast<uintptr_t>(FMON_POISON_NEXT));
    node->pprev = reinterpret_cast<hlink **>(static_cast<uintptr_t>(FMON_POISON_PREV));
}

inline bool hlink_linked(const hlink *node)
{
    return node && node->pprev && node->pprev != reinterpret_cast<hlink **>(static_cast<uintptr_t>(FMON_POISON_PREV));
}

/* Puts the node at the head of the chain that starts at *bucket. */
inline void hlink_add(hlink *node, hlink **bucket)
{
    node->next = *bucket;
    node->pprev = bucket;
    if (*bucket)
        (*bucket)->pprev = &node->next;
    *bucket = node;
}

inline void hlink_unlink(hlink *node)
{
    if (!hlink_linked(node))
        return;
    *node->pprev = node->next;
    if (node->next)
        node->next->pprev = node->pprev;
    hlink_poison(node);
}

/* The record that embeds `node` as `member`. */
#define FMON_RECORD(node, type, member) \
    (reinterpret_cast<type *>(reinterpret_cast<char *>(node) - offsetof(type, member)))

/* Walks. The safe one survives the removal of the current node. Both accept a zeroed head. */
#define FMON_LIST_EACH(node, head) \
    for (list_head *node = (head)->next, *node##_end = (head); node && node != node##_end; node = node->next)
#define FMON_LIST_EACH_SAFE(node, head)                                                                    \
    for (list_head *node = (head)->next, *node##_end = (head), *node##_next = node ? node->next : nullptr; \
         node && node != node##_end; node = node##_next, node##_next = node->next)

#endif
