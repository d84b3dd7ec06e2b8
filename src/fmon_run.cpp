/*
 * What the monitor thread drives the core with: descriptors, the run step, and the reading of queued events.
 *
 * A client is shown the head of its queue and the record is dropped afterwards, so that one it postpones stays at the
 * head and goes on taking events in.
 */
#include <cstdlib>

#include "event.h"
#include "fmon.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "fmon.c";

/* While the table is full the backend is not read, so that the kernel keeps the excess. */
bool table_full() { return fmon.event_count >= fmon.max_events; }

/* Whether something was queued that will leave the table. */
bool make_room() { return fmon.hardened && event_release_held(&fmon) > 0; }

/* The oldest entry of the queue; null and the instance's bit cleared when there is none. */
struct event_entry *head_entry(int id)
{
    list_head *queue = &fmon.instances[id].events;
    if (list_empty(queue)) {
        fmon.event_mask &= ~instance_bit(id);
        return nullptr;
    }
    return FMON_RECORD(queue->next, struct event_entry, link);
}

}  // namespace

int fmon_get_selectable_fds(int32_t **fds, uint32_t *timeout_ms)
{
    if (!fmon.inited)
        return FMON_ENOTINIT;
    if (table_full()) {
        if (make_room())
            *timeout_ms = 0;
        return 0;
    }
    return fmon_method.get_selectable_fds(fds, timeout_ms);
}

int fmon_run(uint32_t now_ms)
{
    if (!fmon.inited)
        return FMON_ENOTINIT;
    if (now_ms - fmon.tbd_last > fmon.tbd_interval) { /* right across the timer's wrap as well */
        fmon_tbd_pass();
        fmon.tbd_last = now_ms;
    }
    if (table_full()) {
        make_room();
        return 0;
    }
    return fmon_method.read_event(&fmon, now_ms, event_process);
}

int fmon_has_event(int id) { return list_empty(&fmon.instances[id].events) ? 0 : 1; }

uint32_t *fmon_get_event_mask(void) { return &fmon.event_mask; }

struct event *fmon_peek_event(int id)
{
    struct event_entry *entry = head_entry(id);
    return entry ? entry->ev : nullptr;
}

/* The record stays in the table, where it can still take events in, until fmon_free_event. */
struct event *fmon_read_event(int id)
{
    struct event_entry *entry = head_entry(id);
    if (!entry)
        return nullptr;
    struct event *ev = entry->ev;
    list_unlink(&entry->link);
    free(entry);
    if (ev)
        ev->ref &= ~instance_bit(id);
    return ev;
}

void fmon_free_event(struct event *ev)
{
    if (ev->ref || ev->pending)
        return;
    FMON_LOG(4, kFile, "free event %s\n", ev->path);
    event_free(&fmon, ev);
}

void fmon_drop_event(int id)
{
    struct event *ev = fmon_read_event(id);
    if (ev)
        fmon_free_event(ev);
}

int fmon_rate_ctrl(uint32_t limit, uint32_t interval, uint32_t log)
{
    if (!fmon.inited)
        return FMON_ENOTINIT;
    return fmon_method.rate_ctrl(limit, interval, log);
}
