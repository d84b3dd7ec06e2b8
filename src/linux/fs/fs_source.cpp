#include "linux/fs/fs_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "event.h"
#include "fmon_status.h"
#include "linux/descriptor.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_served.h"
#include "list.h"
#include "log.h"

struct fs_source fs_source;

namespace
{

constexpr char kFile[] = "linux/fs/fs_source.cpp";

/* Events that the monitor thread takes at a time: clients are to have their turn. */
enum { EVENTS_A_TURN = 4096 };

/* What failed for the moment is tried again, ever more rarely: for reasons that pass seldom it costs next to nothing.
 */
enum { FIRST_RETRY_MS = 500, LAST_RETRY_MS = 64000 };

struct fs_root *root_of(list_head *node) { return FMON_RECORD(node, struct fs_root, link); }

/* ---- start and stop ---- */

void mounts_changed(void *)
{
    fs_source.news |= FS_NEWS_MOUNTS;
    fs_queue_call(&fs_source.queue);
}

bool pass(void *)
{
    const FsLock lock;
    return fs_pass();
}

int refuse(int error)
{
    fs_source.error = error;
    account_source_refused(&fmon_account.fs.source, FMON_WHY_SYSTEM, FMON_LINUX_EFANINIT, error, nullptr);
    FMON_LOG(2, kFile, "no events of whole file systems: %d\n", error);
    return -1;
}

void close_parts()
{
    fs_reader_stop(&fs_source.reader);
    if (fs_source.mounts_fd >= 0)
        close(fs_source.mounts_fd);
    fs_source.mounts_fd = -1;
    fs_pass_free();
    fs_engine_free(fs_source.engine);
    fs_source.engine = nullptr;
    fs_queue_close(&fs_source.queue);
    fs_group_close(&fs_source.group);
    fs_mounts_free(&fs_source.mounts);
    pthread_mutex_destroy(&fs_source.lock);
}

/* Nothing is open, nothing is known. */
void reset()
{
    pthread_mutex_init(&fs_source.lock, nullptr);
    fs_source.group = {-1, true};
    fs_source.queue.event_fd = fs_source.reader.stop_fd = fs_source.mounts_fd = -1;
    fs_source.counters = {};
    fs_source.retry = {};
    fs_source.move = {};
    fs_source.open.count = 0;
    fs_source.again = fs_source.drained = false;
    fs_source.global = nullptr;
    fs_source.wanted = 0;
    fs_source.error = 0;
    fs_source.cannot_ignore = false;
    fs_source.news = 0;
    list_init(&fs_source.roots);
    list_init(&fs_source.systems);
}

void read_table() { fs_source.retry.due |= !fs_mounts_read(&fs_source.mounts); }

/* 0, or errno. */
int open_parts(const struct fmon_fs_keys *keys)
{
    if (fs_group_open(&fs_source.group, keys->queue != 0) < 0 ||
        fs_queue_open(&fs_source.queue, size_t{keys->memory_kib} * 1024) < 0)
        return errno;
    const struct fs_world world = fs_pass_world(keys->ignored);
    fs_source.engine = fs_engine_new(keys->directories, getpid(), &world);
    if (!fs_source.engine)
        return ENOMEM;
    fs_source.mounts_fd = descriptor_settle(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    read_table(); /* what changes from the opening on is said */
    const struct fs_reader_work work = {nullptr, fs_source.group.fd, fs_source.mounts_fd,
                                        pass,    mounts_changed,     static_cast<int>(keys->rest_ms)};
    return fs_reader_start(&fs_source.reader, &work) < 0 ? errno : 0;
}

/* ---- what the monitor thread does ---- */

/* The root whose path it is need not be told of its end again. */
void note_end(const struct fs_queued *event)
{
    if (!(event->kinds & (FMON_DELETE_SELF | FMON_MOVE_SELF)))
        return;
    FMON_LIST_EACH (node, &fs_source.roots)
        root_of(node)->end_told |= strcmp(root_of(node)->path, event->path) == 0;
}

struct fmon_raw known_of(uint32_t queued)
{
    return {(queued & FS_QUEUED_DIR) ? uint32_t{FMON_DIR_YES} : uint32_t{FMON_DIR_NO},
            (queued & ~FS_QUEUED_DIR) >> FS_QUEUED_MOVE_SHIFT};
}

uint64_t hand_on(struct fmon *monitor, fmon_event_cb callback, uint64_t limit)
{
    struct fs_queued event;
    uint64_t count = 0;
    while (count < limit && fs_queue_take(&fs_source.queue, &event)) {
        monitor->raw = known_of(event.kinds);
        event.kinds &= FS_QUEUED_KINDS;
        FMON_LOG(4, kFile, "file system event: %s (0x%x) pid %u\n", event.path, event.kinds, event.pid);
        note_end(&event);
        callback(monitor, nullptr, event.path, event.kinds, event.pid, fs_source.queue.event_fd, nullptr);
        count++;
    }
    return count;
}

/* The first root whose directory may not have its path any more, and which was not looked at in this turn. */
struct fs_root *first_displaced()
{
    FMON_LIST_EACH (node, &fs_source.roots)
        if (root_of(node)->displaced && !root_of(node)->tried)
            return root_of(node);
    return nullptr;
}

/* One that is elsewhere ends like one that inotify saw leave; the system-wide one has nobody to wait for it. */
/* A directory that was moved together with one above it: nothing else says so. Frees the root. */
void leave(struct fmon *monitor, struct fs_root *root)
{
    FMON_LOG(3, kFile, "%s is not at its place any more\n", root->path);
    if (!root->watch || !root->watch->dentry)
        return;
    if (!root->end_told)
        event_process(monitor, nullptr, root->path, FMON_MOVE_SELF, 0, fs_source.queue.event_fd, nullptr);
    fmon_linux_moved_away(root->watch->dentry);
}

/* A removed directory is left to what inotify says of it. */
void settle(struct fmon *monitor, struct fs_root *root)
{
    const int result = fs_root_place_again(root);
    if (result == 0)
        return;
    if (result != FMON_ENOENT) {
        fs_source.news |= FS_NEWS_DISPLACED; /* tried again in the next turn */
        return;
    }
    root->displaced = false;
    if (!fs_root_is_removed(root))
        leave(monitor, root);
}

void settle_displaced(struct fmon *monitor)
{
    fs_source_catch_up(monitor);
    FMON_LIST_EACH (node, &fs_source.roots)
        root_of(node)->tried = false;
    while (struct fs_root *root = first_displaced()) {
        root->tried = true;
        settle(monitor, root);
    }
    fs_source_look_at_mounts();
}

/* What happened in a mount that is gone has its path still: all that waits is taken before that is forgotten. */
void read_mounts()
{
    const FsLock lock;
    read_table();
    FMON_LIST_EACH (node, &fs_source.systems)
        FMON_RECORD(node, struct fs_system, link)->renewed = false;
    fs_pass_all();
}

/* Whether it is time to look at the mounts again. */
bool is_retry_due(uint32_t now_ms)
{
    struct fs_retry *retry = &fs_source.retry;
    if (!retry->due)
        retry->wait_ms = 0;
    else if (retry->wait_ms == 0)
        *retry = {true, now_ms, FIRST_RETRY_MS};
    if (!retry->due || now_ms - retry->from < retry->wait_ms)
        return false;
    retry->from = now_ms;
    retry->wait_ms = retry->wait_ms < LAST_RETRY_MS ? 2 * retry->wait_ms : uint32_t{LAST_RETRY_MS};
    return true;
}

/* A tree with a limit is walked; who asks for events of the monitor's mounts wants fanotify's. */
bool is_served_kind(const struct watch *w)
{
    constexpr uint32_t kLimit = 0x80000000u;
    return (w->flags & FMON_DIR) && !(w->flags & (FMON_FILE | FMON_MOUNT | FMON_LINUX_PART)) && w->max_depth == 0 &&
           !(static_cast<uint32_t>(w->max_subdirs) & kLimit);
}

/* Why the source cannot even try. */
uint32_t reason_against(const struct watch *w)
{
    if (g_container_flag)
        return FMON_FALLBACK_CONTAINER;
    if (!fs_source.on)
        return FMON_FALLBACK_INIT;
    return is_served_kind(w) ? FMON_FALLBACK_NONE : FMON_FALLBACK_KIND;
}

/* Lets go of what serves system-wide kinds. */
void remove_global()
{
    fs_below_release(fs_source.global);
    fs_root_remove(fs_source.global);
    fs_source.global = nullptr;
}

/* "/" and what is mounted below; where "/" takes no mark, as an overlay, the rest. -1: there is none. */
int add_global(uint32_t kinds)
{
    const struct fs_wish wish = {nullptr, "/", "/", kinds, true};
    int error = 0;
    const uint32_t reason = fs_root_add(&wish, &fs_source.global, &error);
    if (reason != FMON_FALLBACK_NONE)
        fs_source.global = fs_root_add_unmarked(&wish);
    if (fs_source.global)
        fs_below_update(fs_source.global);
    if (reason == FMON_FALLBACK_NONE)
        return 0;
    if (fs_source.global && fs_below_serves(fs_source.global)) {
        account_left_out(reason, error, "/");
        return 0;
    }
    if (fs_source.global)
        remove_global();
    account_fallback(reason, error, "/");
    return -1;
}

void fall_back(const struct watch *w, uint32_t reason, int error)
{
    FMON_LOG(3, kFile, "%s is not served by events of its file system: %u, error %d\n", w->path, reason, error);
    account_fallback(reason, error, w->path);
}

}  // namespace

int fs_source_start(void)
{
    if (!fmon.fs_keys.events)
        return -1;
    if (g_container_flag) {
        account_source_refused(&fmon_account.fs.source, FMON_WHY_CONTAINER, 0, 0, nullptr);
        return -1;
    }
    reset();
    const int error = open_parts(&fmon.fs_keys);
    if (error != 0) {
        close_parts();
        return refuse(error);
    }
    account_source_on(&fmon_account.fs.source);
    fs_source.on = true;
    return fs_source.queue.event_fd;
}

void fs_source_stop(void)
{
    if (!fs_source.on)
        return;
    fs_source.on = false;
    fs_reader_stop(&fs_source.reader);
    FMON_LIST_EACH_SAFE (node, &fs_source.roots)
        fs_root_forget(root_of(node));
    FMON_LIST_EACH_SAFE (node, &fs_source.systems)
        fs_system_forget(FMON_RECORD(node, struct fs_system, link));
    close_parts();
}

bool fs_source_ready(void) { return fs_source.on; }

bool fs_source_takes(const struct watch *w) { return fmon.fs_keys.events && reason_against(w) == FMON_FALLBACK_NONE; }

bool fs_source_add(struct watch *w, const char *open_path)
{
    if (!fmon.fs_keys.events || (w->flags & FMON_LINUX_PART))
        return false;
    int error = fs_source.error;
    uint32_t reason = reason_against(w);
    if (reason == FMON_FALLBACK_NONE) {
        const struct fs_wish wish = {w, w->path, open_path, w->mask, (w->flags & FMON_RECURSIVE) != 0};
        reason = fs_root_add(&wish, &w->fs, &error);
    }
    if (reason != FMON_FALLBACK_NONE) {
        fall_back(w, reason, reason == FMON_FALLBACK_INIT || reason > FMON_FALLBACK_KIND ? error : 0);
        return false;
    }
    w->flags |= FMON_LINUX_FS;
    fmon_account.fs.watches++;
    return true;
}

void fs_source_add_below(struct watch *w)
{
    if (w->fs && w->fs->recursive)
        fs_below_update(w->fs);
}

void fs_source_remove(struct watch *w)
{
    struct fs_root *root = w->fs;
    if (!root)
        return;
    fs_below_release(root); /* while the watch still is one that is served */
    fs_root_remove(root);
    w->fs = nullptr;
    w->flags &= ~FMON_LINUX_FS;
    fmon_account.fs.watches--;
}

void fs_source_catch_up(struct fmon *monitor)
{
    {
        const FsLock lock;
        fs_pass_all();
    }
    hand_on(monitor, event_process, UINT64_MAX);
}

void fs_source_read(struct fmon *monitor, fmon_event_cb callback)
{
    const int32_t room = monitor->max_events - monitor->event_count;
    const uint64_t limit = room > 0 ? static_cast<uint64_t>(room) : 0;
    hand_on(monitor, callback, limit < EVENTS_A_TURN ? limit : uint64_t{EVENTS_A_TURN});
}

void fs_source_heed_news(struct fmon *monitor, uint32_t now_ms)
{
    if (!fs_source.on)
        return;
    const uint32_t news = fs_source.news.exchange(0);
    const bool retry = is_retry_due(now_ms);
    if (news & FS_NEWS_DISPLACED)
        settle_displaced(monitor);
    else if ((news & FS_NEWS_MOUNTS) || retry)
        fs_source_look_at_mounts();
    if (fs_source.news & FS_NEWS_MOUNTS) /* since then: its call was taken for one for the events */
        fs_queue_call(&fs_source.queue);
}

int fs_source_global(uint32_t kinds)
{
    if (!fs_source.on)
        return -1;
    if (fs_source.global && kinds != 0) {
        fs_root_change_kinds(fs_source.global, kinds);
    } else if (fs_source.global) {
        remove_global();
    } else if (kinds != 0 && add_global(kinds) < 0) {
        return -1;
    }
    fmon.fs_global = fs_source.global != nullptr;
    return 0;
}

void fs_source_look_at_mounts(void)
{
    if (!fs_source.on)
        return;
    fs_source.retry.due = false;
    read_mounts();
    FMON_LIST_EACH (node, &fs_source.roots)
        if (root_of(node)->recursive)
            fs_below_update(root_of(node));
}

void fs_source_status(struct fmon_status *out)
{
    out->fs = fmon_account.fs;
    if (!fs_source.on)
        return;
    const FsLock lock;
    struct fs_counts counts;
    fs_engine_counts(fs_source.engine, &counts);
    out->fs.directories = counts.directories;
    out->fs.max_directories = counts.limit;
    out->fs.records = counts.records;
    out->fs.asked = counts.asked;
    out->fs.memory = fs_queue_waiting(&fs_source.queue) + (fs_source.again ? fs_source.arena.used : 0);
    out->fs.max_memory = fs_source.queue.limit;
    out->fs.lost = {fs_source.counters.overflows, fs_source.counters.dropped, fs_source.counters.unresolved};
    out->lost.path += fs_source.counters.too_long;
    FMON_LIST_EACH (node, &fs_source.systems)
        out->fs.file_systems += FMON_RECORD(node, struct fs_system, link)->bits != 0;
}
