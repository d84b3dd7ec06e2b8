#include "linux/fs/fs_engine.h"

#include <cstdlib>

#include "orx_fmon.h"

struct fs_engine {
    struct fs_world world;
    struct fs_counts counts;
    int32_t own_pid;
};

namespace
{

/* The order in which what a joined record tells of happened. */
constexpr uint32_t kOrder[] = {FMON_CREATE,     FMON_MOVED_TO, FMON_OPEN,        FMON_ACCESS,
                               FMON_ATTRIB,     FMON_MODIFY,   FMON_CLOSE_WRITE, FMON_CLOSE_NOWRITE,
                               FMON_MOVED_FROM, FMON_DELETE,   FMON_DELETE_SELF, FMON_MOVE_SELF};

}  // namespace

uint32_t fs_event_next(const struct fs_event *event, uint32_t *left)
{
    if (event->delete_first && (*left & FMON_DELETE)) {
        *left &= ~static_cast<uint32_t>(FMON_DELETE);
        return FMON_DELETE;
    }
    for (uint32_t kind : kOrder) {
        if (!(*left & kind))
            continue;
        *left &= ~kind;
        return kind;
    }
    return 0;
}

struct fs_engine *fs_engine_new(uint32_t limit, int32_t own_pid, const struct fs_world *world)
{
    auto *engine = static_cast<struct fs_engine *>(calloc(1, sizeof(struct fs_engine)));
    if (!engine)
        return nullptr;
    engine->world = *world;
    engine->counts.limit = limit;
    engine->own_pid = own_pid;
    return engine;
}

void fs_engine_free(struct fs_engine *engine) { free(engine); }

int fs_engine_add(struct fs_engine *, const struct fs_anchor *) { return FMON_ENOTSUP; }

int fs_engine_join(struct fs_engine *, const struct fs_joint *) { return FMON_ENOTSUP; }

void fs_engine_forget(struct fs_engine *, const int32_t[2]) {}

unsigned fs_engine_remove(struct fs_engine *, uint64_t) { return 0; }

bool fs_engine_take(struct fs_engine *, const char *, size_t, bool) { return false; }

void fs_engine_flush(struct fs_engine *) {}

void fs_engine_counts(const struct fs_engine *engine, struct fs_counts *out) { *out = engine->counts; }
