/* Records on their way from the group through the engine into the queue. */
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "linux/fs/fs_served.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fs/fs_pass.cpp";

/* Records that are taken at once: between the first, which is kept for the next pass, and the last. */
constexpr size_t kFirst = size_t{64} * 1024, kMost = size_t{8} * 1024 * 1024, kLeast = size_t{4} * FS_GROUP_ROOM;

/*
 * Whoever writes for each record that is read (a log on the same file system, a tracer of the monitor) makes new ones
 * without end: reading until nothing waits has its time. What waited at the beginning is read by then.
 */
enum { TURN_MS = 50, ALL_MS = 200 };

/* For so long after that, what a question needs is still read: mostly one read finds all, and without it events of the
 * directory that is asked for are lost. */
enum { ANSWER_MS = 1000 };

int64_t now_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* A quarter of the limit may be records; and what is put into the queue meanwhile has to have room. */
size_t most()
{
    const size_t share = fs_source.queue.limit / 4;
    if (share > kMost)
        return kMost;
    return share > kLeast ? share : kLeast;
}

bool grow(struct fs_arena *arena, size_t size)
{
    auto *grown = static_cast<char *>(realloc(arena->bytes, size));
    if (!grown)
        return false;
    fs_queue_count(&fs_source.queue, size - arena->size);
    arena->bytes = grown;
    arena->size = size;
    return true;
}

void release(struct fs_arena *arena)
{
    free(arena->bytes);
    fs_queue_uncount(&fs_source.queue, arena->size);
    *arena = {};
}

/* Room for more; false: the arena is as big as it may be, or there is no memory. */
bool make_room(struct fs_arena *arena)
{
    const size_t limit = most();
    size_t size = arena->size ? 2 * arena->size : kFirst;
    if (size > limit)
        size = limit;
    return size > arena->size && grow(arena, size);
}

void note_error(int error)
{
    if (error != 0 && error != fs_source.counters.read_error)
        FMON_LOG(1, kFile, "read of the file systems' group failed: %d\n", error);
    fs_source.counters.read_error = error;
}

/* Reads behind what is there until nothing waits, there is no room, or time is up. Returns whether nothing waits. */
bool fill(struct fs_arena *arena)
{
    bool drained = false;
    do {
        int error;
        arena->used +=
            fs_group_read(&fs_source.group, arena->bytes + arena->used, arena->size - arena->used, &drained, &error);
        note_error(error);
    } while (!drained && now_ms() < fs_source.read_until && make_room(arena));
    return drained;
}

/* ---- what the engine asks for ---- */

unsigned count_open(const int32_t fsid[2])
{
    unsigned count = 0;
    for (unsigned i = 0; i < fs_source.open.count; i++)
        count += fs_source.open.all[i].fd >= 0 && fs_same_fsid(fs_source.open.all[i].fsid, fsid);
    return count;
}

int nth_open(const int32_t fsid[2], unsigned n)
{
    for (unsigned i = 0; i < fs_source.open.count; i++) {
        const struct fs_open_mount *mount = &fs_source.open.all[i];
        if (mount->fd >= 0 && fs_same_fsid(mount->fsid, fsid) && n-- == 0)
            return mount->fd;
    }
    return -1;
}

bool was_tried(int mount_id)
{
    for (unsigned i = 0; i < fs_source.open.count; i++)
        if (fs_source.open.all[i].mount_id == mount_id)
            return true;
    return false;
}

/* Opens a mount of the file system, unless it was tried before. True: it is open now. */
bool try_mount(const struct fs_system *system, int mount_id, const char *path)
{
    if (fs_source.open.count == FS_OPEN_MOUNTS || was_tried(mount_id))
        return false;
    struct fs_open_mount *mount = &fs_source.open.all[fs_source.open.count++];
    mount->fsid[0] = system->fsid[0];
    mount->fsid[1] = system->fsid[1];
    mount->mount_id = mount_id;
    mount->fd = fs_mount_open(mount_id, system->fsid, path);
    return mount->fd >= 0;
}

bool is_of(const struct fs_system *system, const int32_t fsid[2]) { return system && fs_same_fsid(system->fsid, fsid); }

/* Whether the file system is open as a whole: other mounts show nothing more, and are spared a look. */
bool is_whole_open(const int32_t fsid[2])
{
    for (unsigned i = 0; i < fs_source.open.count; i++) {
        const struct fs_open_mount *open = &fs_source.open.all[i];
        const struct fs_mount *mount = fs_mounts_find(&fs_source.mounts, open->mount_id);
        if (open->fd >= 0 && fs_same_fsid(open->fsid, fsid) && mount && strcmp(mount->root, "/") == 0)
            return true;
    }
    return false;
}

/* Opens one more mount of that file system, of those that are served. */
bool open_another(const int32_t fsid[2])
{
    if (is_whole_open(fsid))
        return false;
    FMON_LIST_EACH (node, &fs_source.roots) {
        struct fs_root *root = FMON_RECORD(node, struct fs_root, link);
        if (is_of(root->system, fsid) && try_mount(root->system, root->mount_id, root->path))
            return true;
        FMON_LIST_EACH (inner, &root->below) {
            const struct fs_below *below = FMON_RECORD(inner, struct fs_below, link);
            if (is_of(below->system, fsid) && try_mount(below->system, below->mount_id, below->point))
                return true;
        }
    }
    return false;
}

int open_mount(void *, const int32_t fsid[2], unsigned n) { return fs_pass_mount(fsid, n); }

bool ignore(void *, const struct fs_key *directory) { return fs_ignore(directory); }
bool heed(void *, const struct fs_key *directory) { return fs_heed(directory); }

bool read_more(void *, struct fs_chunk *out)
{
    struct fs_arena arena = {};
    *out = {nullptr, 0, false};
    if (now_ms() >= fs_source.read_until + ANSWER_MS || fs_queue_room(&fs_source.queue) < kLeast || !make_room(&arena))
        return false;
    out->drained = fill(&arena);
    out->size = arena.used;
    if (arena.used == 0) {
        release(&arena);
        return true;
    }
    /* Shrinking cannot fail in a way that matters: the block stays as it is. */
    if (auto *fit = static_cast<char *>(realloc(arena.bytes, arena.used)))
        arena.bytes = fit;
    fs_queue_uncount(&fs_source.queue, arena.size - arena.used);
    out->bytes = arena.bytes;
    return true;
}

void done(void *, const struct fs_chunk *chunk)
{
    fs_queue_uncount(&fs_source.queue, chunk->size);
    free(const_cast<char *>(chunk->bytes));
}

/* Whether a recursive root that asks for these kinds lies above. */
bool is_asked_below(const char *path, uint32_t kinds)
{
    FMON_LIST_EACH (node, &fs_source.roots) {
        const struct fs_root *root = FMON_RECORD(node, struct fs_root, link);
        if (root->recursive && (root->kinds & kinds) && fs_path_is_below(path, root->path))
            return true;
    }
    return false;
}

/* A tree's directories report their own removal, as those that have a mark each. */
uint32_t kinds_of(const struct fs_event *event)
{
    const bool removal = event->is_dir && (event->kinds & FMON_DELETE);
    return removal && is_asked_below(event->path, FMON_DELETE_SELF) ? event->kinds | FMON_DELETE_SELF : event->kinds;
}

/* A half of a rename and what the other half was given: the second has no number where the first is not told. */
struct fs_queued_move move_of(const struct fs_event *event, uint32_t kinds)
{
    struct fs_queued_move move = fs_source.move;
    if (event->rename == 0 || !(kinds & (FMON_MOVED_FROM | FMON_MOVED_TO)))
        return {0, 0};
    if (event->rename == move.rename)
        return move;
    move.rename = event->rename;
    move.number = move.number + 1 < FS_QUEUED_MOVES ? move.number + 1 : 1;
    return (kinds & FMON_MOVED_FROM) ? move : fs_queued_move{0, 0};
}

void deliver(void *, const struct fs_event *event)
{
    const uint32_t kinds = kinds_of(event) & fs_source.wanted;
    if (kinds == 0)
        return;
    const struct fs_queued_move move = move_of(event, kinds);
    const uint32_t dir = event->is_dir ? uint32_t{FS_QUEUED_DIR} : 0;
    const auto pid = static_cast<uint32_t>(event->pid);
    if (!fs_queue_put(&fs_source.queue, event->path, event->path_len, kinds | dir | move.number << FS_QUEUED_MOVE_SHIFT,
                      pid))
        fs_source.counters.dropped++;
    else if (move.number)
        fs_source.move = move;
}

void lost(void *, enum fs_loss kind, uint64_t count)
{
    struct fs_counters *counters = &fs_source.counters;
    if (kind == FS_LOST_OVERFLOW)
        counters->overflows += count;
    else if (kind == FS_LOST_UNRESOLVED)
        counters->unresolved += count;
    else
        counters->too_long += count;
}

void tell(uint32_t news)
{
    fs_source.news |= news;
    fs_queue_call(&fs_source.queue);
}

void displaced(void *, uint64_t id)
{
    FMON_LIST_EACH (node, &fs_source.roots) {
        struct fs_root *root = FMON_RECORD(node, struct fs_root, link);
        root->displaced |= root->id == id;
        FMON_LIST_EACH (inner, &root->below) {
            struct fs_below *below = FMON_RECORD(inner, struct fs_below, link);
            below->displaced |= below->id == id;
        }
    }
    tell(FS_NEWS_DISPLACED);
}

bool take(const char *bytes, size_t size, bool drained)
{
    const bool again = fs_engine_take(fs_source.engine, bytes, size, drained);
    fs_pass_close_mounts();
    return again;
}

bool pass_once()
{
    fs_pass_begin();
    if (fs_source.again) {
        fs_source.again = take(nullptr, 0, false);
        return true;
    }
    struct fs_arena *arena = &fs_source.arena;
    if (!arena->bytes && !make_room(arena))
        return false;
    arena->used = 0;
    fs_source.drained = fill(arena);
    /* An empty pass ends the epoch as well: the pass before may have ended where there was no room. */
    fs_source.again = take(arena->bytes, arena->used, fs_source.drained);
    const bool some = arena->used > 0 || fs_source.again;
    if (arena->size > kFirst)
        release(arena);
    return some;
}

}  // namespace

struct fs_world fs_pass_world(uint32_t most_ignored)
{
    struct fs_world world = {};
    world.open_mount = open_mount;
    world.read_more = read_more;
    world.done = done;
    world.deliver = deliver;
    world.lost = lost;
    world.displaced = displaced;
    world.ignore = ignore;
    world.heed = heed;
    world.most_ignored = most_ignored;
    return world;
}

int fs_pass_mount(const int32_t fsid[2], unsigned n)
{
    while (n >= count_open(fsid))
        if (!open_another(fsid))
            return -1;
    return nth_open(fsid, n);
}

void fs_pass_begin(void) { fs_source.read_until = now_ms() + TURN_MS; }

bool fs_pass_mount_failed(const int32_t fsid[2])
{
    for (unsigned i = 0; i < fs_source.open.count; i++)
        if (fs_source.open.all[i].fd < 0 && fs_same_fsid(fs_source.open.all[i].fsid, fsid))
            return true;
    return false;
}

/* The monitor thread is woken when all that was read is in the queue: earlier, both threads would wait for each other.
 */
bool fs_pass(void)
{
    fs_queue_hold(&fs_source.queue);
    const bool some = pass_once();
    fs_queue_release(&fs_source.queue);
    return some;
}

void fs_pass_all(void)
{
    const int64_t end = now_ms() + ALL_MS;
    while (fs_pass() && (!fs_source.drained || fs_source.again) && now_ms() < end) {
    }
}

void fs_pass_close_mounts(void)
{
    for (unsigned i = 0; i < fs_source.open.count; i++)
        if (fs_source.open.all[i].fd >= 0)
            close(fs_source.open.all[i].fd);
    fs_source.open.count = 0;
}

void fs_pass_free(void) { release(&fs_source.arena); }
