#include "dcache.h"

#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "list.h"

namespace {

/* Numbers of buckets, one rung a step. Powers of two: a mask picks the bucket. */
constexpr int32_t kLadder[] = {128, 1024, 4096, 16384, 65536, 262144};
constexpr int32_t kLastRung = 5;
constexpr int32_t kLoad = 8;           /* entries per bucket at which the table grows */
constexpr int32_t kShrinkPercent = 67; /* of the next lower rung's capacity: the gap keeps the table from flapping */

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

/* What a child is looked up by. The hash outlives a change of the table's size. */
struct child_key {
    struct dentry *parent;
    const char *name;
    uint32_t len;
    uint32_t hash;
};

struct child_key key_of(struct dentry *parent, const char *name, uint32_t len)
{
    return {parent, name, len, full_name_hash(reinterpret_cast<uintptr_t>(parent), name, len)};
}

hlink **bucket_of(struct dcache *cache, uint32_t hash)
{
    return &cache->buckets[hash & (static_cast<uint32_t>(kLadder[cache->size_index]) - 1)];
}

struct dentry *dentry_of(hlink *node) { return FMON_RECORD(node, struct dentry, hash); }

struct dentry *lookup(struct dcache *cache, const struct child_key &key)
{
    for (hlink *node = *bucket_of(cache, key.hash); node; node = node->next) {
        struct dentry *d = dentry_of(node);
        if (d->parent == key.parent && d->len == key.len && memcmp(dentry_name(d), key.name, key.len) == 0)
            return d;
    }
    return nullptr;
}

/* Moves every dentry into a table of rung `index`. On failure the old table stays in force. */
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
            hlink_add(node, bucket_of(cache, key_of(d->parent, dentry_name(d), d->len).hash));
        }
    }
    free(old);
    return 0;
}

int grow(struct dcache *cache)
{
    const int32_t index = cache->size_index;
    if (index == kLastRung || cache->count < static_cast<uint32_t>(kLoad * kLadder[index]))
        return 0;
    return rehash(cache, checked_add(index, 1));
}

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

/* A dentry at the tail of its parent's children, in no bucket yet. Null: out of memory. */
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

struct dentry *create(struct dcache *cache, const struct child_key &key)
{
    if (key.len > UINT16_MAX) /* `len` could not hold it */
        return nullptr;
    if (cache->count >= static_cast<uint32_t>(cache->max_entries) || grow(cache) < 0)
        return nullptr;
    struct dentry *d = dentry_new(cache, key.parent, key.name, key.len);
    if (!d)
        return nullptr;
    cache->count = checked_add(cache->count, 1u);
    hlink_add(&d->hash, bucket_of(cache, key.hash));
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

} /* namespace */

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
    dentry_free(cache->root);
    cache->root = nullptr;
    return -1;
}

void dcache_destroy(struct dcache *cache)
{
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
            const struct child_key key = key_of(d, name, static_cast<uint32_t>(len));
            child = lookup(cache, key);
            if (!child && (child = create(cache, key)) && !first)
                first = child;
        }
        if (!child) {
            roll_back(cache, first, d);
            return nullptr;
        }
        d = child;
    }
    return d;
}

struct dentry *dcache_add_sub(struct dcache *cache, struct dentry *parent, const char *name)
{
    const struct child_key key = key_of(parent, name, static_cast<uint32_t>(strlen(name)));
    struct dentry *d = lookup(cache, key);
    return d ? d : create(cache, key);
}

struct dentry *dcache_find_sub(struct dcache *cache, struct dentry *parent, const char *name)
{
    return lookup(cache, key_of(parent, name, static_cast<uint32_t>(strlen(name))));
}

struct dentry *dcache_find_sub2(struct dcache *cache, struct dentry *parent, const char *name, int len)
{
    return len < 0 ? nullptr : lookup(cache, key_of(parent, name, static_cast<uint32_t>(len)));
}

int dcache_del(struct dcache *cache, struct dentry *d)
{
    if (!d || !d->parent)
        return 0;
    if (!list_empty(&d->children))
        return -1;
    hlink_unlink(&d->hash);
    list_unlink(&d->sibling);
    dentry_free(d);
    cache->count = checked_sub(cache->count, 1u);
    return shrink(cache);
}

int32_t dcache_buckets(struct dcache *cache) { return kLadder[cache->size_index]; }
