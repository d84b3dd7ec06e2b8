/*
 * The monitor object: start, stop and instances.
 *
 * A stop does not touch the instances: clients keep their ids, their watches stay listed, and what is queued can still
 * be read. Tree, table and descriptors are gone by then, so the next start cuts the survivors off them before anything
 * can follow a stale link.
 */
#include "fmon.h"

#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "event.h"
#include "fmon_status.h"
#include "fmon_watch.h"
#include "list.h"
#include "log.h"

struct fmon fmon;

namespace
{

constexpr char kFile[] = "fmon.c";
constexpr int32_t kMinTbdInterval = 1000; /* ms */

/* Takes the watch from wherever it stands (tree, waiting list, neither) and frees it. */
void release_watch(struct watch *w)
{
    if (w->dentry) {
        int result = watch_detach(w);
        if (result < 0)
            FMON_LOG(1, kFile, "del watch failed: %d\n", result);
    } else if (w->flags & (FMON_ASTERISK | FMON_DELETED)) {
        list_unlink(&w->link);
    }
    watch_drop(w);
}

/* Bits that the instance left in `pending` of other records are cleared when those are next merged. */
void release_entry(struct event_entry *entry, uint32_t bit)
{
    struct event *ev = entry->ev;
    list_unlink(&entry->link);
    free(entry);
    if (!ev)
        return;
    ev->ref &= ~bit;
    if (!ev->ref && !ev->pending)
        event_free(&fmon, ev);
}

/* Cuts the watches off the tree and the queued records off the table, both of which went with the last stop. The old
 * dentries and buckets must not be touched. A record cut off can complete nothing that is pending. */
void adopt_instance(int id)
{
    struct instance *inst = &fmon.instances[id];
    FMON_LIST_EACH (node, &inst->watches) {
        struct watch *w = FMON_RECORD(node, struct watch, inst_link);
        w->dentry = nullptr;
        list_poison(&w->link);
    }
    FMON_LIST_EACH (node, &inst->events) {
        struct event *ev = FMON_RECORD(node, struct event_entry, link)->ev;
        if (!ev)
            continue;
        hlink_poison(&ev->link);
        ev->pending = 0;
        bool first_holder = (ev->ref & (instance_bit(id) - 1)) == 0;
        if (first_holder)
            fmon.event_count = checked_add(fmon.event_count, 1);
    }
}

/* Instances outlive a stop, with their watches and queues; the counted records are those that a queue still holds. */
void adopt_survivors()
{
    fmon.event_count = 0;
    for (int id = 0; id < FMON_MAX_INSTANCES; id++)
        if (fmon.inst_mask & instance_bit(id))
            adopt_instance(id);
}

/* Makes what a start needs; on failure nothing of it is left. */
int start_parts(int32_t max_events, int32_t max_dentries)
{
    if (dcache_init(&fmon.dcache, max_dentries, dentry_init) < 0) {
        FMON_LOG(1, kFile, "init dcache failed\n");
        account_monitor_ended("init dcache failed", FMON_ENOMEM, 0);
        return FMON_ENOMEM;
    }
    int result = event_init(&fmon, max_events);
    if (result < 0) {
        FMON_LOG(1, kFile, "event init failed: %d\n", result);
        account_monitor_ended("event init failed", result, 0);
        dcache_destroy(&fmon.dcache);
        return result;
    }
    result = fmon_method.init(&fmon);
    if (result < 0) {
        account_source_refused(&fmon_account.monitor, FMON_WHY_OTHER, result, 0, "method init failed");
        FMON_LOG(1, kFile, "method init failed: err %d\n", result);
        dcache_destroy(&fmon.dcache);
        event_deinit(&fmon);
        return result;
    }
    return 0;
}

/* The lowest free slot, FMON_EEXIST or FMON_EFULL. */
int find_slot(const char *name)
{
    int slot = FMON_EFULL;
    for (int id = 0; id < FMON_MAX_INSTANCES; id++) {
        if (strcmp(fmon.instances[id].name, name) == 0)
            return FMON_EEXIST;
        if (slot < 0 && fmon.instances[id].name[0] == '\0')
            slot = id;
    }
    return slot;
}

}  // namespace

void dentry_init(struct dentry *d)
{
    list_init(&owner_of(d)->watches);
    owner_of(d)->wd = -1;
}

int fmon_init(int32_t max_events, int32_t max_dentries, int32_t tbd_interval)
{
    if (max_events < 1 || max_dentries < 1 || tbd_interval < kMinTbdInterval) {
        FMON_LOG(3, kFile, "event set error");
        return FMON_EINVAL;
    }
    if (fmon.inited) {
        FMON_LOG(3, kFile, "init func noexist"); /* operators know a second start by this wording */
        return FMON_EEXIST;
    }
    FMON_LOG(3, kFile, "init fmon: max events %d, max dentries %d\n", max_events, max_dentries);

    account_begin();
    int result = start_parts(max_events, max_dentries);
    if (result < 0)
        return result;
    adopt_survivors();
    fmon.lost = {};
    fmon.released = 0;
    fmon.lost_path[0] = '\0';
    list_init(&fmon.tbd);
    fmon.tbd_interval = static_cast<uint32_t>(tbd_interval);
    fmon.inited = 1;
    account_source_on(&fmon_account.monitor);
    return 0;
}

void fmon_deinit(void)
{
    if (!fmon.inited)
        return;
    dcache_destroy(&fmon.dcache);
    event_deinit(&fmon);
    fmon_method.deinit();
    account_sources_off();
    fmon.inited = 0;
}

void fmon_lost_path(struct fmon *monitor, const char *path)
{
    monitor->lost.path++;
    const size_t length = strnlen(path, sizeof monitor->lost_path - 1);
    memmove(monitor->lost_path, path, length);
    monitor->lost_path[length] = '\0';
}

int fmon_create_instance(const char *name)
{
    if (!fmon.inited)
        return FMON_ENOTINIT;
    if (name[0] == '\0')
        return FMON_EINVAL;

    int id = find_slot(name);
    if (id == FMON_EFULL)
        FMON_LOG(4, kFile, "instance full\n");
    if (id < 0)
        return id;
    FMON_LOG(4, kFile, "create instance: %s\n", name);

    struct instance *inst = &fmon.instances[id];
    memset(inst, 0, sizeof *inst);
    memcpy(inst->name, name, strnlen(name, sizeof inst->name - 1));
    list_init(&inst->watches);
    list_init(&inst->events);
    fmon.inst_mask |= instance_bit(id);
    return id;
}

int fmon_destroy_instance(int id)
{
    int result = fmon_check_instance(id);
    if (result < 0)
        return result;
    struct instance *inst = &fmon.instances[id];
    FMON_LOG(4, kFile, "destroy instance %s\n", inst->name);

    /* Takes nothing from the instance's system-wide mask: a slot goes on counting until it is used again. */
    fmon_del_global_watch(id, 0);
    /* From the head each time: the backend may free further watches of the instance on the way. */
    while (!list_empty(&inst->watches))
        release_watch(FMON_RECORD(inst->watches.next, struct watch, inst_link));
    while (!list_empty(&inst->events))
        release_entry(FMON_RECORD(inst->events.next, struct event_entry, link), instance_bit(id));
    fmon_forget_spared(inst);

    inst->name[0] = '\0';
    fmon.inst_mask &= ~instance_bit(id);
    fmon.event_mask &= ~instance_bit(id);
    return 0;
}
