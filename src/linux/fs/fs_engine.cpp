#include "linux/fs/fs_engine.h"

#include <cstdlib>

#include "linux/fs/fs_state.h"
#include "orx_fmon.h"

namespace
{

/* The order in which what a joined record says happened. */
constexpr uint32_t kOrder[] = {FMON_CREATE,     FMON_MOVED_TO, FMON_OPEN,        FMON_ACCESS,
                               FMON_ATTRIB,     FMON_MODIFY,   FMON_CLOSE_WRITE, FMON_CLOSE_NOWRITE,
                               FMON_MOVED_FROM, FMON_DELETE,   FMON_DELETE_SELF, FMON_MOVE_SELF};

constexpr uint32_t kFewTies = 8;
constexpr uint32_t kTurn = 256; /* chunks that are gone through before others have their turn */

/* The file system that a record is about; -1: one without anchors. */
int system_of(const struct fs_engine *engine, const struct fs_record *record)
{
    const struct fs_key *key = record->entry.dir.len ? &record->entry.dir : &record->to.dir;
    if (!key->len)
        key = &record->object;
    const int system = key->len ? fs_table_system(&engine->table, key->fsid) : -1;
    return system >= 0 && engine->table.systems[system].ties ? system : -1;
}

/* Whether an anchor or a joint stands on the directory. Of most objects that is asked in vain, and the table is big:
 * where there are few of them, these are looked at instead. */
bool is_tied(struct fs_engine *engine, int system, const struct fs_key *key)
{
    const struct fs_tie *tie = engine->ties;
    for (uint32_t i = 0; tie && i < kFewTies; i++, tie = tie->next_of_all) {
        const struct fs_key own = fs_node_key(&engine->table, tie->node);
        if (fs_key_equal(&own, key))
            return true;
    }
    const struct fs_node *node = tie ? fs_table_find(&engine->table, system, key) : nullptr;
    return node && node->ties;
}

/* A record that names nothing but the object is about an anchor's directory or about nothing of ours; but for contents:
 * the file was opened by its handle (by a server of NFS, or by root), and the kernel does not know where it lies. */
bool names_entry(struct fs_engine *engine, int system, struct fs_record *record)
{
    constexpr uint32_t kContents = FMON_OPEN | FMON_ACCESS | FMON_MODIFY | FMON_CLOSE_WRITE | FMON_CLOSE_NOWRITE;
    if (record->entry.dir.len || record->to.dir.len)
        return true;
    if (!is_tied(engine, system, &record->object)) {
        if ((record->mask & kContents) && !(record->mask & FS_MASK_ONDIR))
            fs_engine_lost(engine, FS_LOST_UNRESOLVED);
        return false;
    }
    record->entry.dir = record->object;
    return true;
}

void process(struct fs_engine *engine, struct fs_record *record)
{
    engine->counts.records++;
    if (record->mask & FS_MASK_OVERFLOW) {
        fs_engine_lost(engine, FS_LOST_OVERFLOW);
        engine->forget = true;
        return;
    }
    const bool moves = fs_moves_directory(record);
    const int system = moves || record->pid != engine->own_pid ? system_of(engine, record) : -1;
    if (system < 0 || !names_entry(engine, system, record))
        return;
    enum fs_side from, to;
    fs_tell(engine, record, &from, &to);
    if (!moves)
        return;
    fs_learn(engine, record, from, to);
    fs_loud_check(engine, FS_LOUD_MOVED);
}

/* The current record. False: the chunk has none any more. What others are told of may bring further chunks. */
bool process_next(struct fs_engine *engine)
{
    struct fs_batch *batch = &engine->batch;
    const struct fs_chunk *chunk = &batch->chunks[0].chunk;
    struct fs_record record;
    const enum fs_cut cut = fs_record_at(chunk->bytes, chunk->size, batch->at, &record);
    if (cut == FS_CUT_RECORD)
        process(engine, &record);
    else if (cut == FS_CUT_SKIP || batch->at < chunk->size)
        fs_engine_lost(engine, FS_LOST_UNRESOLVED);
    if (cut != FS_CUT_END)
        batch->at += static_cast<uint32_t>(record.size);
    if (engine->forget)
        fs_engine_flush(engine);
    return cut != FS_CUT_END;
}

/* Nothing is joined any more to what was read before. */
void end_epoch(struct fs_engine *engine)
{
    fs_moves_clear(&engine->moves);
    engine->table.epoch = ++engine->epoch;
    fs_loud_check(engine, FS_LOUD_RETRY);
}

/* The first chunk. True: it was the caller's. */
bool process_chunk(struct fs_engine *engine)
{
    while (process_next(engine))
        ;
    const struct fs_batch_chunk passed = fs_batch_pop(&engine->batch);
    if (passed.chunk.drained)
        end_epoch(engine);
    if (!passed.borrowed)
        engine->world.done(engine->world.arg, &passed.chunk);
    return passed.borrowed;
}

/* All of these records are lost, and with them what they say of directories. */
void drop(struct fs_engine *engine, const struct fs_chunk *chunk)
{
    struct fs_record record;
    for (size_t at = 0; fs_record_at(chunk->bytes, chunk->size, at, &record) != FS_CUT_END; at += record.size)
        fs_engine_lost(engine, FS_LOST_UNRESOLVED);
    engine->forget = true;
}

/* Nothing waited behind what was read: false if there is nothing that was read. */
bool note_drained(struct fs_batch *batch)
{
    if (!batch->count)
        return false;
    batch->chunks[batch->count - 1].chunk.drained = true;
    return true;
}

bool push(struct fs_engine *engine, const struct fs_chunk *chunk, bool borrowed)
{
    if (fs_batch_push(&engine->batch, chunk, borrowed))
        return true;
    drop(engine, chunk);
    return false;
}

}  // namespace

uint32_t fs_event_next(const struct fs_event *event, uint32_t *left)
{
    if (event->delete_first && (*left & FMON_DELETE)) {
        *left &= ~static_cast<uint32_t>(FMON_DELETE);
        return FMON_DELETE;
    }
    for (const uint32_t kind : kOrder) {
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
    if (!fs_table_init(&engine->table, limit)) {
        free(engine);
        return nullptr;
    }
    engine->world = *world;
    if (!fs_loud_init(engine)) {
        fs_engine_free(engine);
        return nullptr;
    }
    if (!engine->world.asks)
        engine->world.asks = &fs_kernel;
    engine->own_pid = own_pid;
    engine->generation = engine->mount_generation = engine->epoch = 1;
    return engine;
}

void fs_engine_free(struct fs_engine *engine)
{
    if (!engine)
        return;
    while (engine->ties)
        fs_engine_remove(engine, engine->ties->id);
    while (engine->batch.count) {
        const struct fs_batch_chunk chunk = fs_batch_pop(&engine->batch);
        if (!chunk.borrowed)
            engine->world.done(engine->world.arg, &chunk.chunk);
    }
    fs_batch_release(&engine->batch);
    fs_moves_release(&engine->moves);
    fs_table_release(&engine->table);
    free(engine->paths.bytes);
    free(engine->loud.all);
    free(engine);
}

bool fs_engine_take(struct fs_engine *engine, const char *bytes, size_t size, bool drained)
{
    const struct fs_chunk chunk = {bytes, size, drained};
    bool borrowed = size && push(engine, &chunk, true);
    if (!size && drained && !note_drained(&engine->batch))
        end_epoch(engine);
    if (engine->forget)
        fs_engine_flush(engine);
    for (uint32_t passed = 0; engine->batch.count && (borrowed || passed < kTurn); passed++)
        if (process_chunk(engine))
            borrowed = false;
    fs_close_directories(engine);
    return engine->batch.count != 0;
}

void fs_engine_process_all(struct fs_engine *engine)
{
    while (engine->batch.count)
        process_chunk(engine);
}

bool fs_engine_read_more(struct fs_engine *engine)
{
    struct fs_chunk chunk = {};
    if (!engine->world.read_more(engine->world.arg, &chunk))
        return false;
    if (chunk.size == 0) {
        if (chunk.drained)
            note_drained(&engine->batch);
        return chunk.drained;
    }
    if (push(engine, &chunk, false))
        return chunk.drained;
    engine->world.done(engine->world.arg, &chunk);
    return false;
}

void fs_engine_lost(struct fs_engine *engine, enum fs_loss kind)
{
    engine->counts.lost[kind]++;
    engine->world.lost(engine->world.arg, kind, 1);
}

void fs_engine_forget(struct fs_engine *engine, const int32_t fsid[2])
{
    const int system = fs_table_system(&engine->table, fsid);
    if (system < 0)
        return;
    fs_loud_release(engine, system);
    fs_table_forget(&engine->table, system);
}

void fs_engine_counts(const struct fs_engine *engine, struct fs_counts *out)
{
    *out = engine->counts;
    out->directories = engine->table.count;
    out->limit = engine->table.limit;
    out->ignored = engine->loud.count;
}
