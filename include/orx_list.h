/*
 * orx_list.h: the two intrusive links that cross the border between the module, the agent and the clients.
 *
 * The types only. Records embed a link; the link is owned by the record that holds it. A node that was taken out of
 * its list is poisoned with FMON_POISON_NEXT and FMON_POISON_PREV, so that taking it out twice does nothing.
 */
#ifndef ORX_LIST_H
#define ORX_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

#define FMON_POISON_NEXT 0x100100
#define FMON_POISON_PREV 0x200200

/* A node of a circular doubly linked list, and its head: an empty head points at itself. */
typedef struct list_head {
    struct list_head *next, *prev;
} list_head;

/* A node of a singly headed hash chain: `pprev` points at the `next` field (or bucket head) that leads here. */
typedef struct hlink {
    struct hlink *next, **pprev;
} hlink;

#ifdef __cplusplus
}
#endif

#endif
