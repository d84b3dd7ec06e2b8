/*
 * Which instances want a record, and the delivery to their queues.
 *
 * An instance is given a record once, however many of its watches match: its bit in `ref` stands from the delivery
 * until the instance has read it. Offering stops for nothing but that bit, since the order of watches must not decide.
 */
#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "event.h"
#include "event_index.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "event.c";

/* What a delayed watch holds back or completes with. */
constexpr uint32_t kDelayMask = FMON_ACCESS | FMON_MODIFY | FMON_CLOSE;

enum class Verdict { kNoMatch, kHold, kDeliver };

/* Whether the watch's path agrees with the record's up to the record's last "/". So a watch on /a/b takes /a/b itself
 * and what lies directly in it. */
bool in_directory(const struct watch *w, const char *path)
{
    const char *slash = strrchr(path, '/');
    return !slash || strncmp(w->path, path, static_cast<size_t>(slash - path)) == 0;
}

/* The record's mask holds all kinds merged so far: what a delayed watch waits for may have come with an earlier one. */
Verdict match(const struct watch *w, const struct event *ev)
{
    uint32_t wanted = w->mask & ev->mask;
    if (!wanted)
        return Verdict::kNoMatch;
    if ((w->flags & FMON_DIR) && !(w->flags & FMON_RECURSIVE) && !in_directory(w, ev->path))
        return Verdict::kNoMatch;
    if (fmon_spares_event(w, ev->path))
        return Verdict::kNoMatch;
    if (!(w->flags & FMON_DELAY) || (wanted & ~kDelayMask))
        return Verdict::kDeliver;
    if ((wanted & FMON_ACCESS) && (wanted & FMON_CLOSE))
        return Verdict::kDeliver;
    if ((wanted & FMON_MODIFY) && (ev->mask & FMON_CLOSE_WRITE))
        return Verdict::kDeliver;
    return (wanted & (FMON_ACCESS | FMON_MODIFY)) ? Verdict::kHold : Verdict::kNoMatch;
}

/* Null, with a log line and counted: out of memory. */
struct event_entry *new_entry(struct fmon *monitor, struct event *ev)
{
    auto *entry = static_cast<struct event_entry *>(malloc(sizeof(struct event_entry)));
    if (entry) {
        entry->ev = ev;
        return entry;
    }
    monitor->lost.memory++;
    FMON_LOG(1, kFile, "event1 malloc fail\n");
    return nullptr;
}

void queue_entry(struct fmon *monitor, struct event_entry *entry, int id)
{
    list_add_tail(&entry->link, &monitor->instances[id].events);
    FMON_LOG(4, kFile, "dispatch event to %d", id);
    entry->ev->ref |= instance_bit(id);
    monitor->event_mask |= instance_bit(id);
}

/* Each watch has its events of one source only, each of which reports everything that it is asked for. */
bool is_served(const struct watch *w) { return (w->flags & FMON_LINUX_FS) != 0; }
bool is_from_fs(struct event *ev) { return FMON_RECORD(ev, struct event_record, ev)->from_fs != 0; }

/* An instance that is short of memory for the delivery misses the event, unless another of its watches comes by. It no
 * longer holds the record back either: what it waited for has come. */
void offer_to_watch(struct fmon *monitor, struct event *ev, const struct watch *w)
{
    uint32_t bit = instance_bit(w->instance);
    if ((ev->ref & bit) || is_served(w) != is_from_fs(ev))
        return;
    Verdict verdict = match(w, ev);
    if (verdict == Verdict::kNoMatch)
        return;
    if (verdict == Verdict::kHold) {
        ev->pending |= bit;
        return;
    }
    ev->pending &= ~bit;
    struct event_entry *entry = new_entry(monitor, ev);
    if (!entry)
        return;
    FMON_LOG(4, kFile, "instance %d prefer this event\n", w->instance);
    queue_entry(monitor, entry, w->instance);
}

/* Returns whether the dentry has a watch at all. */
bool offer_to_dentry(struct fmon *monitor, struct event *ev, struct dentry *d)
{
    list_head *watches = &owner_of(d)->watches;
    if (list_empty(watches))
        return false;
    FMON_LIST_EACH (node, watches) {
        offer_to_watch(monitor, ev, FMON_RECORD(node, struct watch, link));
    }
    return true;
}

/* Calls `visit` with the root's dentry and with each further one that the path leads through. */
template <typename Visit>
void each_on_the_way(struct fmon *monitor, const char *walk, Visit visit)
{
    struct dentry *at = monitor->dcache.root;
    visit(at);
    const char *name;
    for (int len; (len = path_component(&walk, &name)) > 0 && len <= DCACHE_PATH_MAX;) {
        at = dcache_find_sub2(&monitor->dcache, at, name, len);
        if (!at)
            break;
        visit(at);
    }
}

bool nothing_queued(const struct fmon *monitor)
{
    for (uint32_t rest = monitor->inst_mask; rest; rest &= rest - 1) {
        if (!list_empty(&monitor->instances[__builtin_ctz(rest)].events))
            return false;
    }
    return true;
}

/* Queues a record for everybody who holds it back; frees it when nobody of them lives. False: out of memory, the rest
 * goes on holding it. */
bool release(struct fmon *monitor, struct event *ev)
{
    for (ev->pending &= monitor->inst_mask; ev->pending; ev->pending &= ev->pending - 1) {
        struct event_entry *entry = new_entry(monitor, ev);
        if (!entry)
            return false;
        queue_entry(monitor, entry, __builtin_ctz(ev->pending));
    }
    if (!ev->ref)
        event_free(monitor, ev);
    return true;
}

}  // namespace

/* From the object itself, where it is a cached directory or a watched file, up to the root. */
bool event_offer_dentry(struct fmon *monitor, struct event *ev, struct dentry *d, const char *name)
{
    struct dentry *child = name ? dcache_find_sub(&monitor->dcache, d, name) : nullptr;
    bool watched = false;
    for (struct dentry *at = child ? child : d; at; at = at->parent)
        watched |= offer_to_dentry(monitor, ev, at);
    return watched;
}

/* From the root down, as far as the cache goes: it need not know the file, only the watched directories above it. */
bool event_offer_path(struct fmon *monitor, struct event *ev, const char *walk)
{
    bool watched = false;
    each_on_the_way(monitor, walk, [&](struct dentry *d) { watched |= offer_to_dentry(monitor, ev, d); });
    return watched;
}

bool event_path_is_watched(struct fmon *monitor, const char *walk)
{
    bool watched = false;
    each_on_the_way(monitor, walk, [&](struct dentry *d) { watched |= !list_empty(&owner_of(d)->watches); });
    return watched;
}

/* Instances that died are left out by inst_mask: their bits in the global set stay. */
void event_dispatch_global(struct fmon *monitor, struct event *ev)
{
    uint32_t rest = monitor->global_instance_mask & monitor->inst_mask & ~ev->ref;
    FMON_LOG(4, kFile, "rest_mask=%x, fmon->inst_mask = %x, fmon->global_instance_mask = %x, event_ref = %x", rest,
             monitor->inst_mask, monitor->global_instance_mask, ev->ref);
    for (; rest; rest &= rest - 1) {
        int id = __builtin_ctz(rest);
        ev->pending &= ~instance_bit(id);
        if (!(monitor->instances[id].global_mask & ev->mask))
            continue;
        struct event_entry *entry = new_entry(monitor, ev);
        if (!entry)
            return; /* memory is short: unlike the offer to watches, the rest is not tried */
        queue_entry(monitor, entry, id);
    }
}

int event_release_held(struct fmon *monitor)
{
    if (!nothing_queued(monitor))
        return 0;
    const int32_t eighth = monitor->max_events / 8;
    const int32_t wanted = checked_sub(monitor->event_count, monitor->max_events) + (eighth > 0 ? eighth : 1);
    int released = 0;
    FMON_LIST_EACH_SAFE (node, &monitor->records) {
        if (released >= wanted || !release(monitor, &FMON_RECORD(node, struct event_record, age)->ev))
            break;
        released++;
    }
    if (released > 0)
        FMON_LOG(2, kFile, "event table full: %d events that wait for a close are handed on as they are\n", released);
    monitor->released += static_cast<uint64_t>(released);
    return released;
}
