#include "linux/fs/fs_moves.h"

#include <cstdlib>

#include "linux/fs/fs_table.h"

namespace
{

constexpr uint32_t kSlots = 8192; /* a power of two */
constexpr uint32_t kMost = kSlots / 2;

uint64_t hash_of(const struct fs_key *directory, const struct fs_entry *entry)
{
    const struct fs_key name = {{}, static_cast<int32_t>(entry->name_len), entry->name_len, entry->name};
    uint64_t hash = fs_key_hash(directory);
    hash = (hash << 1 | hash >> 63) ^ fs_key_hash(&entry->dir);
    hash = (hash << 1 | hash >> 63) ^ fs_key_hash(&name);
    return hash ? hash : 1;
}

/* The slot of that hash, or the free one where it belongs. */
uint32_t slot_of(const struct fs_moves *moves, uint64_t hash)
{
    auto slot = static_cast<uint32_t>(hash >> 20) & (kSlots - 1);
    while (moves->slots[slot] && moves->slots[slot] != hash)
        slot = (slot + 1) & (kSlots - 1);
    return slot;
}

}  // namespace

void fs_moves_add(struct fs_moves *moves, const struct fs_key *directory, const struct fs_entry *from)
{
    if (!moves->slots)
        moves->slots = static_cast<uint64_t *>(calloc(kSlots, sizeof(uint64_t)));
    moves->full = moves->full || !moves->slots || moves->used == kMost;
    if (moves->full)
        return;
    const uint64_t hash = hash_of(directory, from);
    uint64_t *slot = &moves->slots[slot_of(moves, hash)];
    moves->used += *slot == 0;
    *slot = hash;
}

bool fs_moves_has(const struct fs_moves *moves, const struct fs_key *directory, const struct fs_entry *at)
{
    if (moves->full || !moves->used)
        return moves->full;
    const uint64_t hash = hash_of(directory, at);
    return moves->slots[slot_of(moves, hash)] == hash;
}

void fs_moves_clear(struct fs_moves *moves)
{
    if (moves->used)
        memset(moves->slots, 0, kSlots * sizeof(uint64_t));
    moves->used = 0;
    moves->full = moves->crossed = false;
}

void fs_moves_release(struct fs_moves *moves)
{
    free(moves->slots);
    *moves = {};
}
