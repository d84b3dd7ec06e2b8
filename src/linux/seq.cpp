#include "linux/seq.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/seq.c";

/* Where a descriptor is, or where it would be inserted. */
struct place {
    int index;
    bool found;
};

struct place bisect(const struct seq_table *table, int32_t wd)
{
    int lo = 0;
    int hi = checked_sub(table->count, 1);
    while (lo <= hi) {
        const int mid = checked_add(lo, hi) / 2;
        const int32_t key = table->entries[mid].wd;
        if (key == wd)
            return {mid, true};
        if (key < wd)
            lo = checked_add(mid, 1);
        else
            hi = checked_sub(mid, 1);
    }
    return {lo, false};
}

/* The kernel hands out watch descriptors in rising order, so that marking a tree nearly always appends. */
struct place find(const struct seq_table *table, int32_t wd)
{
    if (table->count > 0 && table->entries[table->count - 1].wd < wd)
        return {table->count, false};
    return bisect(table, wd);
}

struct seq_entry *resized(struct seq_entry *entries, int capacity)
{
    const int bytes = checked_mul(capacity, static_cast<int>(sizeof(struct seq_entry)));
    return static_cast<struct seq_entry *>(realloc(entries, static_cast<size_t>(bytes)));
}

/* Chunk by chunk: large blocks are grown by the C library without copying, so that a long run of appends stays linear.
 */
bool grow(struct seq_table *table)
{
    struct seq_entry *entries = resized(table->entries, checked_add<int>(table->count, SEQ_CHUNK));
    if (!entries) {
        FMON_LOG(1, kFile, "realloc seq failed: %s\n", strerror(errno));
        return false;
    }
    table->entries = entries;
    return true;
}

/* A full array is recognised by its count alone: the capacity is always the count rounded up to whole chunks, or more
 * after a failed shrink. */
bool insert(struct seq_table *table, int index, int32_t wd, uint64_t value)
{
    if (table->count % SEQ_CHUNK == 0 && !grow(table))
        return false;
    struct seq_entry *at = table->entries + index;
    if (index < table->count)
        memmove(at + 1, at, static_cast<size_t>(checked_sub(table->count, index)) * sizeof(*at));
    *at = {wd, value};
    table->count = checked_add(table->count, 1);
    return true;
}

int close_gaps(struct seq_entry *entries, int count)
{
    int kept = 0;
    for (int i = 0; i < count; i++) {
        if (entries[i].value == 0)
            continue;
        entries[kept] = entries[i];
        kept = checked_add(kept, 1);
    }
    return kept;
}

/* What a resize to no entries means is the allocator's choice; freeing the block ourselves leaves no doubt about who
 * owns it. The line is written as for an allocator that answers with nothing, and the next insert starts afresh. */
bool shrink(struct seq_table *table)
{
    if (table->count == 0) {
        free(table->entries);
        table->entries = nullptr;
        return false;
    }
    const int chunks = checked_add<int>(table->count, SEQ_CHUNK - 1) / SEQ_CHUNK;
    struct seq_entry *entries = resized(table->entries, checked_mul<int>(chunks, SEQ_CHUNK));
    if (entries)
        table->entries = entries;
    return entries != nullptr;
}

/* Poisoned entries stay: their IN_IGNORED has not been read yet. */
void sweep(struct seq_table *table)
{
    table->count = close_gaps(table->entries, table->count);
    table->deleted = 0;
    if (!shrink(table))
        FMON_LOG(2, kFile, "realloc failed: %s\n", strerror(errno));
}

}  // namespace

uint64_t seq_get(struct seq_table *table, int32_t wd)
{
    const struct place at = bisect(table, wd);
    return at.found ? table->entries[at.index].value : 0;
}

/* A hole that is taken into use again stays counted as a deletion: the sweep only comes a little early. */
int seq_set(struct seq_table *table, int32_t wd, uint64_t value)
{
    const struct place at = find(table, wd);
    if (!at.found)
        return insert(table, at.index, wd, value) ? 0 : -1;
    table->entries[at.index].value = value;
    return 0;
}

int seq_del(struct seq_table *table, int32_t wd)
{
    const struct place at = bisect(table, wd);
    if (!at.found)
        return -1;
    table->entries[at.index].value = 0;
    table->deleted = checked_add(table->deleted, 1);
    if (table->deleted >= SEQ_SWEEP)
        sweep(table);
    return 0;
}

uint64_t seq_live(const struct seq_table *table)
{
    uint64_t live = 0;
    for (int32_t i = 0; i < table->count; i++)
        live += table->entries[i].value != 0 && table->entries[i].value != SEQ_POISON;
    return live;
}
