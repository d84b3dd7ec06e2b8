#include "linux/fs/fs_batch.h"

#include <cstdlib>

#include "linux/fs/fs_table.h"
#include "orx_fmon.h"

namespace
{

constexpr uint32_t kFirstChunks = 16;
constexpr uint32_t kFirstEntries = 256;
constexpr uint32_t kKeptEntries = 8192;       /* what an index that is done with may keep */
constexpr uint32_t kMostPassed = 1024 * 1024; /* entries of an index that is made anew when a chunk is done */

constexpr uint64_t kEntryKinds = FMON_CREATE | FMON_DELETE | FMON_MOVED_FROM | FMON_MOVED_TO | FS_MASK_RENAME;

uint64_t position_of(uint32_t number, uint32_t at) { return (uint64_t{number} << 32) | at; }
uint64_t current(const struct fs_batch *batch) { return position_of(batch->number, batch->at); }

const struct fs_chunk *chunk_at(const struct fs_batch *batch, uint64_t position)
{
    return &batch->chunks[static_cast<uint32_t>(position >> 32) - batch->number].chunk;
}

void clear(struct fs_ahead *ahead)
{
    if (ahead->room > kKeptEntries) {
        free(ahead->entries);
        ahead->entries = nullptr;
        ahead->room = 0;
    }
    if (ahead->count) {
        memset(ahead->heads, 0, sizeof(ahead->heads));
        memset(ahead->tails, 0, sizeof(ahead->tails));
    }
    ahead->count = 0;
    ahead->scanned = ahead->anonymous = 0;
    ahead->broken = false;
}

bool has_entry_room(struct fs_ahead *ahead)
{
    if (ahead->count < ahead->room)
        return true;
    const uint32_t room = ahead->room ? ahead->room * 2 : kFirstEntries;
    auto *entries = static_cast<struct fs_ahead_entry *>(realloc(ahead->entries, room * sizeof(struct fs_ahead_entry)));
    if (!entries)
        return false;
    ahead->entries = entries;
    ahead->room = room;
    return true;
}

void enter(struct fs_ahead *ahead, const struct fs_record *record, uint64_t position)
{
    if (!has_entry_room(ahead)) {
        ahead->broken = true;
        return;
    }
    const auto hash = static_cast<uint32_t>(fs_key_hash(&record->object) >> 16);
    const uint32_t bucket = hash % FS_AHEAD_BUCKETS;
    ahead->entries[ahead->count++] = {hash, 0, position};
    if (ahead->tails[bucket])
        ahead->entries[ahead->tails[bucket] - 1].next = ahead->count;
    else
        ahead->heads[bucket] = ahead->count;
    ahead->tails[bucket] = ahead->count;
}

void scan_record(struct fs_ahead *ahead, const struct fs_record *record, uint64_t position)
{
    if (!fs_moves_directory(record))
        return;
    if (record->object.len)
        enter(ahead, record, position);
    else if (record->mask & (kEntryKinds & ~static_cast<uint64_t>(FMON_CREATE)))
        ahead->anonymous = position + 1;
}

void scan_chunk(struct fs_ahead *ahead, const struct fs_chunk *chunk, uint32_t number, uint32_t at)
{
    struct fs_record record;
    enum fs_cut cut;
    while ((cut = fs_record_at(chunk->bytes, chunk->size, at, &record)) != FS_CUT_END) {
        if (cut == FS_CUT_RECORD)
            scan_record(ahead, &record, position_of(number, at));
        at += static_cast<uint32_t>(record.size);
    }
}

/* Brings the index up to all that was read. Records before the current one are of no use. */
void scan(struct fs_batch *batch)
{
    struct fs_ahead *ahead = &batch->ahead;
    uint64_t from = current(batch) > ahead->scanned ? current(batch) : ahead->scanned;
    for (auto number = static_cast<uint32_t>(from >> 32); number - batch->number < batch->count; number++) {
        scan_chunk(ahead, &batch->chunks[number - batch->number].chunk, number, static_cast<uint32_t>(from));
        from = 0;
    }
    ahead->scanned = position_of(batch->number + batch->count, 0);
}

/* What lies before the current record is passed for good. */
uint32_t first_of_bucket(struct fs_batch *batch, uint32_t bucket)
{
    struct fs_ahead *ahead = &batch->ahead;
    uint32_t at = ahead->heads[bucket];
    while (at && ahead->entries[at - 1].position < current(batch))
        at = ahead->entries[at - 1].next;
    ahead->heads[bucket] = at;
    if (!at)
        ahead->tails[bucket] = 0;
    return at;
}

void record_at(const struct fs_batch *batch, uint64_t position, struct fs_record *out)
{
    const struct fs_chunk *chunk = chunk_at(batch, position);
    fs_record_at(chunk->bytes, chunk->size, static_cast<uint32_t>(position), out);
}

/* The position of the first that is about the directory. */
uint64_t find_ahead(struct fs_batch *batch, const struct fs_key *key, struct fs_record *out)
{
    const auto hash = static_cast<uint32_t>(fs_key_hash(key) >> 16);
    for (uint32_t at = first_of_bucket(batch, hash % FS_AHEAD_BUCKETS); at; at = batch->ahead.entries[at - 1].next) {
        if (batch->ahead.entries[at - 1].hash != hash)
            continue;
        record_at(batch, batch->ahead.entries[at - 1].position, out);
        if (fs_key_equal(&out->object, key))
            return batch->ahead.entries[at - 1].position;
    }
    return FS_NEVER;
}

}  // namespace

void fs_batch_init(struct fs_batch *batch) { *batch = {}; }

void fs_batch_release(struct fs_batch *batch)
{
    free(batch->chunks);
    free(batch->ahead.entries);
    *batch = {};
}

bool fs_batch_push(struct fs_batch *batch, const struct fs_chunk *chunk, bool borrowed)
{
    if (chunk->size > UINT32_MAX)
        return false;
    if (batch->count == batch->room) {
        const uint32_t room = batch->room ? batch->room * 2 : kFirstChunks;
        auto *chunks =
            static_cast<struct fs_batch_chunk *>(realloc(batch->chunks, room * sizeof(struct fs_batch_chunk)));
        if (!chunks)
            return false;
        batch->chunks = chunks;
        batch->room = room;
    }
    batch->chunks[batch->count++] = {*chunk, borrowed};
    return true;
}

struct fs_batch_chunk fs_batch_pop(struct fs_batch *batch)
{
    const struct fs_batch_chunk first = batch->chunks[0];
    batch->count--;
    memmove(batch->chunks, batch->chunks + 1, batch->count * sizeof(struct fs_batch_chunk));
    batch->number = batch->count ? batch->number + 1 : 0;
    batch->at = 0;
    if (!batch->count || batch->ahead.count > kMostPassed)
        clear(&batch->ahead);
    return first;
}

uint64_t fs_batch_next_move(struct fs_batch *batch, const struct fs_key *key)
{
    struct fs_record record;
    scan(batch);
    return batch->ahead.broken ? FS_AT_ONCE : find_ahead(batch, key, &record);
}

enum fs_ahead_result fs_batch_ahead(struct fs_batch *batch, const struct fs_key *key, struct fs_record *out)
{
    scan(batch);
    if (batch->ahead.broken)
        return FS_AHEAD_BROKEN;
    return find_ahead(batch, key, out) == FS_NEVER ? FS_AHEAD_NONE : FS_AHEAD_FOUND;
}

bool fs_batch_anonymous(const struct fs_batch *batch) { return batch->ahead.anonymous > current(batch); }

bool fs_moves_directory(const struct fs_record *record)
{
    return (record->mask & FS_MASK_ONDIR) && (record->mask & kEntryKinds) &&
           (record->entry.dir.len || record->to.dir.len);
}
