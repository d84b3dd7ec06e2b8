/*
 * The table of pending event records: making, merging and freeing them.
 *
 * A raw event is first looked for among the live records. It is merged into the one of the same path and process, which
 * is then offered again to everybody with all its kinds; or it becomes a new record, which enters the table only when
 * an instance took it or holds it back. So what nobody wants leaves no trace but its log lines.
 */
#include "event.h"

#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "event_index.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "event.c";

/* Wanted length of a chain when the table is full, and the least number of chains. */
constexpr int32_t kChainLength = 12, kMinBuckets = 32;

/* One raw event on its way through the table. */
struct raw_event {
    char *path; /* owned until a record takes it */
    struct fmon_raw known;
    uint32_t mask, pid, from_fs;
    int source_fd;
    const char *walk;      /* the path to look directories up by */
    const char *container; /* null: none */
    char walk_buffer[DCACHE_PATH_MAX];
};

/* Null also for null. */
char *copy_text(const char *text)
{
    if (!text)
        return nullptr;
    size_t size = strlen(text) + 1;
    auto *copy = static_cast<char *>(malloc(size));
    if (copy)
        memcpy(copy, text, size);
    return copy;
}

/* djb2. It decides the order in which the dump lists records, and nothing else: look-ups go through the index. */
uint32_t path_hash(const char *path)
{
    uint32_t hash = 5381;
    for (; *path; path++)
        hash = hash * 33 + static_cast<unsigned char>(*path);
    return hash;
}

hlink **bucket_of(struct fmon *monitor, const char *path)
{
    return &monitor->hash[path_hash(path) % static_cast<uint32_t>(monitor->hash_size)];
}

/* In container mode: where the path lies as seen from here, and in which container. */
void translate_path(struct raw_event *raw, const char *mount_id)
{
    raw->walk = raw->path;
    raw->container = nullptr;
    if (!g_container_flag || !mount_id)
        return;
    raw->walk_buffer[0] = '\0';
    container_path_get(raw->path, mount_id, &raw->container, raw->walk_buffer, sizeof raw->walk_buffer);
    if (raw->walk_buffer[0])
        raw->walk = raw->walk_buffer;
}

/* There is no path: it is too long, of which the longest beginning that can be built is kept, or memory is short. */
void count_pathless(struct fmon *monitor, struct dentry *d, const char *name)
{
    if (!d || _dentry_path(d, name)) {
        monitor->lost.memory++;
        return;
    }
    const char *path = dentry_path_null(d);
    const bool complete = path;
    for (; !path; d = d->parent)
        path = dentry_path_null(d->parent);
    char text[sizeof monitor->lost_path];
    orx_str_snprintf(text, sizeof text, "%s/%s", path, complete && name ? name : "");
    fmon_lost_path(monitor, text);
}

/* Of several renames in one record it is not known which one the other half belongs to. */
void learn(struct event_record *record, const struct raw_event *raw)
{
    record->dirs = static_cast<uint8_t>(record->dirs | raw->known.dir);
    if (!(raw->mask & (FMON_MOVED_FROM | FMON_MOVED_TO)))
        return;
    record->move = record->moved ? 0 : raw->known.move;
    record->moved = 1;
}

/* A record for the event, in no table; takes the path. Null: out of memory, the path is still the caller's. */
struct event_record *new_record(const struct raw_event *raw)
{
    FMON_LOG(4, kFile, "create new event: %s, len:%d, ev: %s, pid: %d\n", raw->path,
             static_cast<int>(strlen(raw->path)), event_str(raw->mask), raw->pid);
    auto *record = static_cast<struct event_record *>(calloc(1, sizeof(struct event_record)));
    if (!record)
        return nullptr;
    record->ev.container = copy_text(raw->container);
    if (raw->container && !record->ev.container) {
        free(record);
        return nullptr;
    }
    record->ev.path = raw->path;
    record->ev.mask = raw->mask;
    record->ev.pid = raw->pid;
    record->from_fs = raw->from_fs;
    learn(record, raw);
    return record;
}

/* Returns whether any watch was met. Without a dentry only a kernel probe's event is for the whole system, and one of
 * the source of whole file systems where that stands in for probes. */
bool offer(struct fmon *monitor, struct event *ev, struct dentry *d, const char *name, const struct raw_event *raw)
{
    if (d)
        return event_offer_dentry(monitor, ev, d, name);
    if (raw->source_fd != 0) {
        const bool watched = event_offer_path(monitor, ev, raw->walk);
        if (raw->from_fs && monitor->fs_global)
            event_dispatch_global(monitor, ev);
        return watched;
    }
    event_dispatch_global(monitor, ev);
    return false;
}

/* Puts the record into the table, or frees it when no instance wants it. A descriptor's event that met no watch at all
 * came from a mark that ought to be gone: the backend is asked to take it away. */
void settle_new(struct fmon *monitor, struct event_record *record, uint64_t key, bool watched, int source_fd)
{
    struct event *ev = &record->ev;
    if (ev->ref || ev->pending) {
        hlink_add(&ev->link, bucket_of(monitor, ev->path));
        event_index_add(monitor, record, key);
        list_add_tail(&record->age, &monitor->records);
        monitor->event_count = checked_add(monitor->event_count, 1);
        return;
    }
    FMON_LOG(4, kFile, "not watch prefer this event\n");
    if (!watched && source_fd != 0 && fmon_method.punish_unexpected_watch)
        fmon_method.punish_unexpected_watch(source_fd, ev->path);
    _event_free(ev);
}

/* A merge can leave a record without a holder: those who held it back are gone, or were given it and had no memory for
 * the delivery. */
void settle_merged(struct fmon *monitor, struct event *ev)
{
    if (ev->ref || ev->pending)
        return;
    FMON_LOG(4, kFile, "clear deleted instance's pending event\n");
    event_free(monitor, ev);
}

/* The later event adds its kinds to the record; what destroyed instances held back is forgotten. */
void merge(struct fmon *monitor, struct event *ev, const struct raw_event *raw)
{
    FMON_LOG(4, kFile, "merge into old event, old event %s, new event %s\n", event_str(ev->mask),
             event_str2(raw->mask));
    ev->mask |= raw->mask;
    learn(FMON_RECORD(ev, struct event_record, ev), raw);
    ev->pending &= monitor->inst_mask;
}

}  // namespace

int event_init(struct fmon *monitor, int32_t max_events)
{
    monitor->max_events = max_events;
    monitor->hash_size = max_events / kChainLength;
    if (monitor->hash_size < kMinBuckets)
        monitor->hash_size = kMinBuckets;
    list_init(&monitor->records);
    monitor->hash = event_table_new(monitor->hash_size);
    return monitor->hash ? 0 : FMON_ENOMEM;
}

void event_deinit(struct fmon *monitor)
{
    free(monitor->hash);
    monitor->hash = nullptr;
}

int event_process(struct fmon *monitor, struct dentry *d, const char *name, uint32_t mask, uint32_t pid, int source_fd,
                  const char *mount_id)
{
    struct raw_event raw;
    raw.known = monitor->raw;
    monitor->raw = {};
    raw.path = d ? dentry_sub_path_dup(d, name) : copy_text(name);
    if (!raw.path) {
        count_pathless(monitor, d, name);
        return FMON_ENOMEM;
    }
    raw.mask = mask;
    raw.pid = pid;
    raw.source_fd = source_fd;
    raw.from_fs = monitor->fs_fd > 0 && source_fd == monitor->fs_fd;
    translate_path(&raw, mount_id);

    uint64_t key = event_key(raw.path, pid);
    struct event *ev = event_index_find(monitor, key, raw.path, pid, raw.from_fs);
    if (ev) {
        merge(monitor, ev, &raw);
        offer(monitor, ev, d, name, &raw);
        settle_merged(monitor, ev);
        free(raw.path);
        return 0;
    }
    struct event_record *record = new_record(&raw);
    if (!record) {
        monitor->lost.memory++;
        free(raw.path);
        return FMON_ENOMEM;
    }
    bool watched = offer(monitor, &record->ev, d, name, &raw);
    settle_new(monitor, record, key, watched, source_fd);
    return 0;
}

void event_free(struct fmon *monitor, struct event *ev)
{
    monitor->event_count = checked_sub(monitor->event_count, 1);
    /* Records outlive the table of a stopped monitor; those are in no chain of the next one either. */
    if (monitor->hash && hlink_linked(&ev->link)) {
        event_index_remove(ev);
        list_unlink(&FMON_RECORD(ev, struct event_record, ev)->age);
        hlink_unlink(&ev->link);
    }
    _event_free(ev);
}

void _event_free(struct event *ev)
{
    if (!ev)
        return;
    free(ev->path);
    free(ev->container);
    free(ev);
}

int _orx_fmon_event_details(const struct event *ev, struct fmon_event_details *out)
{
    if (out->size < offsetof(struct fmon_event_details, move))
        return FMON_EINVAL;
    const auto *record = reinterpret_cast<const struct event_record *>(ev); /* which begins with it */
    constexpr uint32_t kBoth = FMON_DIR_NO | FMON_DIR_YES;
    const uint32_t dir = record->dirs == kBoth ? uint32_t{FMON_DIR_UNKNOWN} : record->dirs;
    const struct fmon_event_details now = {out->size < sizeof now ? out->size : static_cast<uint32_t>(sizeof now), dir,
                                           record->move};
    memcpy(out, &now, now.size);
    return 0;
}

void event_dump(struct fmon *monitor)
{
    FMON_LOG(4, kFile, "\nEvents:\n");
    FMON_LOG(4, kFile, "count: %d\n", monitor->event_count);
    if (!monitor->hash)
        return;
    for (int32_t i = 0; i < monitor->hash_size; i++)
        for (hlink *node = monitor->hash[i]; node; node = node->next) {
            struct event *ev = FMON_RECORD(node, struct event, link);
            FMON_LOG(4, kFile, "  %s, event %s pid %d, ref %x, pending %x\n", ev->path, event_str(ev->mask), ev->pid,
                     ev->ref, ev->pending);
        }
}
