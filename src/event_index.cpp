/*
 * The index of the event table.
 *
 * The key is 64 bits wide: the lower ones choose the head, the upper half is kept with the record. It is keyed so that
 * nobody who chooses file names can make look-ups slow; colliding djb2 texts are made by hand.
 */
#include "event_index.h"

#include <sys/auxv.h>

#include <cstdlib>
#include <cstring>

#include "list.h"

namespace
{

/* Heads in the index for each chain, the number of chains being rounded up to a power of two; and their limit, which
 * keeps the index of a huge table from taking more address space than it saves time. */
constexpr size_t kHeadsPerChain = 8, kMaxHeads = size_t{1} << 24;

struct sip_state {
    uint64_t v0, v1, v2, v3;
};

uint64_t rotate(uint64_t x, int bits) { return x << bits | x >> (64 - bits); }

inline void sip_round(struct sip_state *s)
{
    s->v0 += s->v1;
    s->v2 += s->v3;
    s->v1 = rotate(s->v1, 13) ^ s->v0;
    s->v3 = rotate(s->v3, 16) ^ s->v2;
    s->v0 = rotate(s->v0, 32);
    s->v2 += s->v1;
    s->v0 += s->v3;
    s->v1 = rotate(s->v1, 17) ^ s->v2;
    s->v3 = rotate(s->v3, 21) ^ s->v0;
    s->v2 = rotate(s->v2, 32);
}

inline void sip_absorb(struct sip_state *s, uint64_t word)
{
    s->v3 ^= word;
    sip_round(s);
    s->v0 ^= word;
}

/* SipHash-1-3, keyed with the random bytes that the kernel gives every process. */
struct sip_state sip_start()
{
    uint64_t key[2] = {};
    if (unsigned long random = getauxval(AT_RANDOM))
        memcpy(key, reinterpret_cast<const void *>(random), sizeof key);
    return {key[0] ^ 0x736f6d6570736575, key[1] ^ 0x646f72616e646f6d, key[0] ^ 0x6c7967656e657261,
            key[1] ^ 0x7465646279746573};
}

uint64_t sip_finish(struct sip_state *s)
{
    s->v2 ^= 0xff;
    for (int i = 0; i < 3; i++)
        sip_round(s);
    return s->v0 ^ s->v1 ^ s->v2 ^ s->v3;
}

/* A power of two. Follows from the number of chains, so that it need not be kept. */
size_t index_heads(int32_t hash_size)
{
    auto chains = static_cast<uint32_t>(hash_size);
    size_t rounded = size_t{1} << (32 - __builtin_clz((chains - 1) | 1));
    return rounded < kMaxHeads / kHeadsPerChain ? rounded * kHeadsPerChain : kMaxHeads;
}

hlink **index_head(const struct fmon *monitor, uint64_t key)
{
    hlink **index = monitor->hash + monitor->hash_size;
    return &index[key & (index_heads(monitor->hash_size) - 1)];
}

uint32_t tag_of(uint64_t key) { return static_cast<uint32_t>(key >> 32); }

}  // namespace

hlink **event_table_new(int32_t hash_size)
{
    size_t heads = static_cast<size_t>(hash_size) + index_heads(hash_size);
    return static_cast<hlink **>(calloc(heads, sizeof(hlink *)));
}

uint64_t event_key(const char *path, uint32_t pid)
{
    struct sip_state s = sip_start();
    size_t len = strlen(path);
    uint64_t word;
    for (; len >= sizeof word; path += sizeof word, len -= sizeof word) {
        memcpy(&word, path, sizeof word);
        sip_absorb(&s, word);
    }
    word = 0;
    memcpy(&word, path, len);
    sip_absorb(&s, word); /* at least one NUL in it: texts of different length never absorb the same words */
    sip_absorb(&s, pid);
    return sip_finish(&s);
}

struct event *event_index_find(const struct fmon *monitor, uint64_t key, const char *path, uint32_t pid,
                               uint32_t from_fs)
{
    for (hlink *node = *index_head(monitor, key); node; node = node->next) {
        struct event_record *record = FMON_RECORD(node, struct event_record, index_link);
        if (record->tag == tag_of(key) && record->ev.pid == pid && record->from_fs == from_fs &&
            strcmp(record->ev.path, path) == 0)
            return &record->ev;
    }
    return nullptr;
}

void event_index_add(const struct fmon *monitor, struct event_record *record, uint64_t key)
{
    record->tag = tag_of(key);
    hlink_add(&record->index_link, index_head(monitor, key));
}

void event_index_remove(struct event *ev) { hlink_unlink(&FMON_RECORD(ev, struct event_record, ev)->index_link); }
