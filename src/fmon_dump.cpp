/* The diagnostic dump: the monitor's state as log lines of level 4. Works before the start and after the stop too. */
#include "event.h"
#include "fmon.h"
#include "linux/fmon_linux.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "fmon.c";

enum { DUMP_ALL, DUMP_INSTANCES, DUMP_TBD, DUMP_DENTRIES, DUMP_EVENTS, DUMP_BACKEND, DUMP_FILES };

const char *place(const struct watch *w) { return w->dentry ? "dentry" : "nil dentry"; }

void dump_entry(const struct event *ev)
{
    if (!ev)
        FMON_LOG(4, kFile, "  nil event ptr\n");
    else
        FMON_LOG(4, kFile, "    [E] %s, event %s, pid %d, ref %x, pending %x\n", ev->path ? ev->path : "(nil path)",
                 event_str(ev->mask), ev->pid, ev->ref, ev->pending);
}

void dump_instance(int id)
{
    struct instance *inst = &fmon.instances[id];
    FMON_LOG(4, kFile, "  %s id %d\n", inst->name, id);
    FMON_LIST_EACH (node, &inst->watches) {
        struct watch *w = FMON_RECORD(node, struct watch, inst_link);
        FMON_LOG(4, kFile, "    [W] %s (%s), event %s, flags %s, maxdepth %d, maxsubdirs %d\n", w->path, place(w),
                 event_str(w->mask), flags_str(w->flags), w->max_depth, w->max_subdirs);
    }
    FMON_LIST_EACH (node, &inst->events) {
        dump_entry(FMON_RECORD(node, struct event_entry, link)->ev);
    }
}

void dump_instances()
{
    FMON_LOG(4, kFile, "\nInstance:\n");
    for (int id = 0; id < FMON_MAX_INSTANCES; id++)
        if (fmon.instances[id].name[0])
            dump_instance(id);
}

void dump_tbd()
{
    FMON_LOG(4, kFile, "\nTBD list:\n");
    FMON_LIST_EACH (node, &fmon.tbd) {
        struct watch *w = FMON_RECORD(node, struct watch, link);
        FMON_LOG(4, kFile, "  [W] %s (%s), event %s, flags %s, maxdepth %d, maxsubdirs %d\n", w->path, place(w),
                 event_str(w->mask), flags_str(w->flags), w->max_depth, w->max_subdirs);
    }
}

void dump_dentry(struct dentry *d)
{
    FMON_LOG(4, kFile, "  %s\n", dentry_path(d));
    FMON_LIST_EACH (node, &owner_of(d)->watches) {
        struct watch *w = FMON_RECORD(node, struct watch, link);
        FMON_LOG(4, kFile, "    [W] event %s, flags %s, maxdepth %d, maxsubdirs %d\n", event_str(w->mask),
                 flags_str(w->flags), w->max_depth, w->max_subdirs);
    }
}

/* The walk does not return the directory it starts at, so neither "/" nor the watches on it are shown. Kept. */
void dump_dentries()
{
    FMON_LOG(4, kFile, "\nDentry:\n");
    if (!fmon.dcache.root)
        return;
    struct dcache_traverse walk;
    dcache_traverse_start(&walk, fmon.dcache.root, nullptr);
    while (struct dentry *d = dcache_traverse_next_safe(&walk))
        if (walk.state != DCACHE_LEAVE || !d->parent)
            dump_dentry(d);
    dcache_traverse_end(&walk);
}

void dump_backend(uint32_t type, void *arg)
{
    if (fmon_method.dump)
        fmon_method.dump(type, arg);
}

void dump_all(uint32_t type, void *arg)
{
    dump_instances();
    dump_tbd();
    dump_dentries();
    event_dump(&fmon);
    dump_backend(type, arg);
}

}  // namespace

int fmon_dump(uint32_t type, void *arg)
{
    switch (type) {
        case DUMP_ALL:
            dump_all(type, arg);
            return 0;
        case DUMP_INSTANCES:
            dump_instances();
            return 0;
        case DUMP_TBD:
            dump_tbd();
            return 0;
        case DUMP_DENTRIES:
            dump_dentries();
            return 0;
        case DUMP_EVENTS:
            event_dump(&fmon);
            return 0;
        case DUMP_BACKEND:
            dump_backend(type, arg);
            return 0;
        case DUMP_FILES:
            _dump_file_list();
            return 0;
        default:
            return -1;
    }
}
