/*
 * The table and the tree. A dentry hangs twice: in its parent's ring of children, which paths and walks follow, and in
 * the bucket that its parent's address and its own name hash to, which look-ups follow. Dentries never move in memory,
 * so rehashing only links them anew, and users may keep their addresses until they delete them.
 *
 * An entry with a name below 30 bytes costs one block of 128 bytes and an eighth of a bucket pointer or more.
 */
#include "dcache.h"

#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "list.h"

namespace
{

/* Numbers of buckets, one rung a step. Powers of two: a mask picks the bucket. */
constexpr int32_t kLadder[] = {128, 1024, 4096, 16384, 65536, 262144};
constexpr int32_t kLastRung = 5;
constexpr int32_t kLoad = 8;           /* entries per bucket at which the table grows */
constexpr int32_t kShrinkPercent = 67; /* of the next lower rung's capacity: the gap keeps the table from flapping */
constexpr int kFewSiblings = 16;       /* looked through before the table is asked */

static_assert(sizeof(kLadder) / sizeof(kLadder[0]) == kLastRung + 1);
static_assert(kLadder[kLastRung] * kLoad == DCACHE_MAX_ENTRIES);
static_assert(sizeof(struct dentry) <= 128, "a million directories cost a million of these");

constexpr bool rungs_are_powers_of_two()
{
    for (int32_t size : kLadder)
        if ((size & (size - 1)) != 0)
            return false;
    return true;
}
static_assert(rungs_are_powers_of_two());

/* The parent's address salts the hash: equal names in different directories spread over the table. */
hlink **bucket_of(struct dcache *cache, const struct dentry *parent, const char *name, uint32_t len)
{
    const uint32_t hash = full_name_hash(reinterpret_cast<uintptr_t>(parent), name, len);
    return &cache->buckets[hash & (static_cast<uint32_t>(kLadder[cache->size_index]) - 1)];
}

struct dentry *dentry_of(hlink *node) { return FMON_RECORD(node, struct dentry, hash); }

bool has_name(const struct dentry *d, const char *name, uint32_t len)
{
    return d->len == len && memcmp(dentry_name(d), name, len) == 0;
}

/* (parent, name) is unique, so the first match is the only one. */
struct dentry *lookup(struct dcache *cache, struct dentry *parent, const char *name, uint32_t len)
{
    if (list_empty(&parent->children)) /* most directories have none: no hash, no chain */
        return nullptr;
    for (hlink *node = *bucket_of(cache, parent, name, len); node; node = node->next) {
        struct dentry *d = dentry_of(node);
        if (d->parent == parent && has_name(d, name, len))
            return d;
    }
    return nullptr;
}

/* As lookup, for a child that is probably missing. To know that from its chain costs a cache miss per link; its newest
 * siblings were made a moment ago when a tree is taken in, and few directories have more than these. */
struct dentry *lookup_among_siblings(struct dcache *cache, struct dentry *parent, const char *name, uint32_t len)
{
    list_head *head = &parent->children;
    list_head *node = head->prev;
    for (int i = 0; i < kFewSiblings && node != head; i++, node = node->prev) {
        struct dentry *d = FMON_RECORD(node, struct dentry, sibling);
        if (has_name(d, name, len))
            return d;
    }
    return node == head ? nullptr : lookup(cache, parent, name, len);
}

/* Moves every dentry into a table of rung `index`. On failure the old table stays in force. Entries are pushed at the
 * heads of their new chains, so a chain holds the order of the old ones backwards. */
int rehash(struct dcache *cache, int32_t index)
{
    hlink **table = static_cast<hlink **>(calloc(static_cast<size_t>(kLadder[index]), sizeof(hlink *)));
    if (!table)
        return -1;
    hlink **old = cache->buckets;
    const int32_t old_size = kLadder[cache->size_index];
    cache->buckets = table;
    cache->size_index = index;
    for (int32_t i = 0; i < old_size; i++) {
        for (hlink *node = old[i], *next; node; node = next) {
            next = node->next;
            struct dentry *d = dentry_of(node);
            hlink_add(node, bucket_of(cache, d->parent, dentry_name(d), d->len));
        }
    }
    free(old);
    return 0;
}

/* Before each creation: at most one rung, since one entry comes at a time. */
int grow(struct dcache *cache)
{
    const int32_t index = cache->size_index;
    if (index == kLastRung || cache->count < static_cast<uint32_t>(kLoad * kLadder[index]))
        return 0;
    return rehash(cache, checked_add(index, 1));
}

/* After each deletion: at most one rung. */
int shrink(struct dcache *cache)
{
    const int32_t index = cache->size_index;
    if (index == 0)
        return 0;
    const int32_t lower_capacity = checked_mul(kLadder[index - 1], kLoad);
    if (cache->count > static_cast<uint32_t>(checked_mul(kShrinkPercent, lower_capacity) / 100))
        return 0;
    return rehash(cache, checked_sub(index, 1));
}

/* `name` is a component of a longer text as often as a text of its own: its length says where it ends. */
bool store_name(struct dentry *d, const char *name, uint32_t len)
{
    char *to = d->name.in;
    if (len >= DENTRY_NAME_LIMIT) {
        to = d->name.ptr = static_cast<char *>(malloc(size_t{len} + 1));
        if (!to)
            return false;
    }
    memcpy(to, name, len);
    to[len] = '\0';
    d->len = static_cast<uint16_t>(len);
    return true;
}

void dentry_free(struct dentry *d)
{
    if (d->len >= DENTRY_NAME_LIMIT)
        free(d->name.ptr);
    free(d);
}

/* A dentry at the tail of its parent's children, in no bucket yet, its owner area set up by the hook. Null: out of
 * memory. */
struct dentry *dentry_new(struct dcache *cache, struct dentry *parent, const char *name, uint32_t len)
{
    struct dentry *d = static_cast<struct dentry *>(calloc(1, sizeof(struct dentry)));
    if (!d)
        return nullptr;
    if (!store_name(d, name, len)) {
        free(d);
        return nullptr;
    }
    d->parent = parent;
    list_init(&d->children);
    if (parent)
        list_add_tail(&d->sibling, &parent->children);
    if (cache->init_hook)
        cache->init_hook(d);
    return d;
}

/* The new entry heads its chain: what was just made is asked for soonest. */
struct dentry *create(struct dcache *cache, struct dentry *parent, const char *name, uint32_t len)
{
    if (len > UINT16_MAX) /* `len` could not hold it */
        return nullptr;
    if (cache->count >= static_cast<uint32_t>(cache->max_entries) || grow(cache) < 0)
        return nullptr;
    struct dentry *d = dentry_new(cache, parent, name, len);
    if (!d)
        return nullptr;
    cache->count = checked_add(cache->count, 1u);
    hlink_add(&d->hash, bucket_of(cache, parent, name, len));
    return d;
}

/* Takes back what one dcache_add made: the chain from `last` up to `first`. A table that cannot shrink does not stop
 * it, the dentry is gone all the same. */
void roll_back(struct dcache *cache, struct dentry *first, struct dentry *last)
{
    while (first && last->parent) {
        struct dentry *parent = last->parent;
        const bool done = last == first;
        dcache_del(cache, last);
        if (done)
            return;
        last = parent;
    }
}

}  // namespace

int dcache_init(struct dcache *cache, int32_t max_entries, void (*init_hook)(struct dentry *))
{
    if (max_entries < 1 || max_entries > DCACHE_MAX_ENTRIES)
        return -1;
    *cache = {};
    cache->init_hook = init_hook;
    cache->root = dentry_new(cache, nullptr, "/", 1);
    if (!cache->root)
        return -1;
    cache->max_entries = max_entries;
    cache->buckets = static_cast<hlink **>(calloc(static_cast<size_t>(kLadder[0]), sizeof(hlink *)));
    if (cache->buckets)
        return 0;
    dentry_free(cache->root); /* what its hook set up needs no release */
    cache->root = nullptr;
    return -1;
}

void dcache_destroy(struct dcache *cache)
{
    /* Through the table and not the tree: every dentry but the root is in one bucket, and nothing recurses. */
    for (int32_t i = 0; cache->buckets && i < kLadder[cache->size_index]; i++) {
        for (hlink *node = cache->buckets[i], *next; node; node = next) {
            next = node->next;
            dentry_free(dentry_of(node));
        }
    }
    if (cache->root)
        dentry_free(cache->root);
    free(cache->buckets);
    cache->root = nullptr;
    cache->buckets = nullptr;
    cache->count = 0;
}

int path_component(const char **pos, const char **name)
{
    *name = **pos ? *pos + 1 : *pos; /* whatever the skipped character is: a path need not begin with '/' */
    *pos = strchrnul(*name, '/');
    return static_cast<int>(*pos - *name);
}

struct dentry *dcache_find(struct dcache *cache, const char *path)
{
    struct dentry *d = cache->root;
    const char *name;
    for (int len; d && (len = path_component(&path, &name)) > 0;)
        d = len <= DCACHE_PATH_MAX ? dcache_find_sub2(cache, d, name, len) : nullptr;
    return d;
}

struct dentry *dcache_add(struct dcache *cache, const char *path)
{
    struct dentry *d = cache->root;
    struct dentry *first = nullptr; /* made by this call */
    const char *name;
    for (int len; (len = path_component(&path, &name)) > 0;) {
        struct dentry *child = nullptr;
        if (len <= DCACHE_PATH_MAX) {
            child = lookup(cache, d, name, static_cast<uint32_t>(len));
            if (!child && (child = create(cache, d, name, static_cast<uint32_t>(len))) && !first)
                first = child;
        }
        if (!child) { /* too long, no room or no memory */
            roll_back(cache, first, d);
            return nullptr;
        }
        d = child;
    }
    return d;
}

struct dentry *dcache_add_sub(struct dcache *cache, struct dentry *parent, const char *name)
{
    const uint32_t len = static_cast<uint32_t>(strlen(name));
    struct dentry *d = lookup_among_siblings(cache, parent, name, len);
    return d ? d : create(cache, parent, name, len);
}

struct dentry *dcache_find_sub(struct dcache *cache, struct dentry *parent, const char *name)
{
    return lookup(cache, parent, name, static_cast<uint32_t>(strlen(name)));
}

struct dentry *dcache_find_sub2(struct dcache *cache, struct dentry *parent, const char *name, int len)
{
    return len < 0 ? nullptr : lookup(cache, parent, name, static_cast<uint32_t>(len));
}

int dcache_del(struct dcache *cache, struct dentry *d)
{
    if (!d || !d->parent)
        return 0;
    if (!list_empty(&d->children))
        return -1;
    hlink_unlink(&d->hash); /* both leave poison: a dentry that was taken out before does no harm */
    list_unlink(&d->sibling);
    dentry_free(d);
    cache->count = checked_sub(cache->count, 1u);
    return shrink(cache);
}

int32_t dcache_buckets(struct dcache *cache) { return kLadder[cache->size_index]; }
