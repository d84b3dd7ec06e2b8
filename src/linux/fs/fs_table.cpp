#include "linux/fs/fs_table.h"

#include <cstdlib>

namespace
{

constexpr uint32_t kLeastBuckets = 64;
constexpr uint32_t kMostBuckets = 1u << 20;
constexpr uint32_t kMostSpared = 32; /* after so many in one sweep the table grows instead */
constexpr uint32_t kMostSystems = UINT16_MAX;

char *node_bytes(struct fs_node *node) { return reinterpret_cast<char *>(node + 1); }
const char *node_bytes(const struct fs_node *node) { return reinterpret_cast<const char *>(node + 1); }

uint64_t mix(uint64_t hash, uint64_t word)
{
    hash = (hash ^ word) * 0x9e3779b97f4a7c15u;
    return hash ^ (hash >> 29);
}

uint32_t hash_of(int system, const struct fs_key *key)
{
    return static_cast<uint32_t>(mix(fs_key_hash(key), static_cast<uint64_t>(system)) >> 16);
}

bool is_node(const struct fs_node *node, uint32_t hash, int system, const struct fs_key *key)
{
    return node->hash == hash && node->system == system && node->key_len == key->len && node->type == key->type &&
           memcmp(node_bytes(node), key->bytes, key->len) == 0;
}

struct fs_node *make_node(uint32_t hash, int system, const struct fs_key *key)
{
    auto *node = static_cast<struct fs_node *>(calloc(1, sizeof(struct fs_node) + key->len));
    if (!node)
        return nullptr;
    node->hash = hash;
    node->system = static_cast<uint16_t>(system);
    node->type = key->type;
    node->key_len = static_cast<uint8_t>(key->len);
    memcpy(node_bytes(node), key->bytes, key->len);
    return node;
}

/* Takes the node that *link points to out of the table. */
void remove_at(struct fs_table *table, struct fs_node **link)
{
    struct fs_node *node = *link;
    *link = node->next;
    fs_node_forget_place(node);
    free(node);
    table->count--;
}

bool may_go(const struct fs_node *node) { return !node->pins && !node->ties && !node->children; }

/* Where it was cannot be asked for any more. As many again as the table has room for are kept so. */
bool is_spared(const struct fs_table *table, const struct fs_node *node)
{
    return node->motion.died == table->epoch && table->count / 2 < table->limit;
}

/* Removes one of the bucket that was not used since the last sweep. */
bool sweep_bucket(struct fs_table *table, struct fs_node **link, uint32_t &spared)
{
    for (; *link; link = &(*link)->next) {
        if (!may_go(*link))
            continue;
        if (is_spared(table, *link)) {
            spared++;
            continue;
        }
        if (!((*link)->flags & FS_NODE_USED)) {
            remove_at(table, link);
            return true;
        }
        (*link)->flags &= static_cast<uint8_t>(~FS_NODE_USED);
    }
    return false;
}

/* Two rounds: the first may find all of them used. When all are parents or pinned, the table grows past its limit. */
void make_room(struct fs_table *table)
{
    uint32_t spared = 0;
    for (uint32_t i = 0; i <= table->mask * 2 + 1 && spared < kMostSpared; i++) {
        if (sweep_bucket(table, &table->buckets[table->hand], spared))
            return;
        table->hand = (table->hand + 1) & table->mask;
    }
}

uint32_t bucket_count(uint32_t limit)
{
    uint32_t count = kLeastBuckets;
    while (count < limit && count < kMostBuckets)
        count *= 2;
    return count;
}

bool is_of(const struct fs_node *node, int system) { return system < 0 || node->system == system; }

void forget_all_places(struct fs_table *table, int system)
{
    for (uint32_t i = 0; i <= table->mask; i++)
        for (struct fs_node *node = table->buckets[i]; node; node = node->next)
            if (is_of(node, system)) {
                fs_node_forget_place(node);
                node->outside = node->top = 0;
                node->flags = 0;
            }
}

}  // namespace

bool fs_table_init(struct fs_table *table, uint32_t limit)
{
    *table = {};
    table->limit = limit;
    table->epoch = 1;
    table->mask = bucket_count(limit) - 1;
    table->buckets = static_cast<struct fs_node **>(calloc(table->mask + size_t{1}, sizeof(struct fs_node *)));
    return table->buckets != nullptr;
}

void fs_table_release(struct fs_table *table)
{
    if (table->buckets)
        forget_all_places(table, -1);
    for (uint32_t i = 0; table->buckets && i <= table->mask; i++)
        while (table->buckets[i])
            remove_at(table, &table->buckets[i]);
    free(table->buckets);
    free(table->systems);
    *table = {};
}

int fs_table_system(const struct fs_table *table, const int32_t fsid[2])
{
    for (uint32_t i = 0; i < table->system_count; i++)
        if (fs_same_fsid(table->systems[i].fsid, fsid))
            return static_cast<int>(i);
    return -1;
}

int fs_table_enter_system(struct fs_table *table, const int32_t fsid[2])
{
    const int known = fs_table_system(table, fsid);
    if (known >= 0 || table->system_count == kMostSystems)
        return known;
    const size_t size = (table->system_count + size_t{1}) * sizeof(struct fs_known_system);
    auto *systems = static_cast<struct fs_known_system *>(realloc(table->systems, size));
    if (!systems)
        return -1;
    table->systems = systems;
    systems[table->system_count] = {{fsid[0], fsid[1]}, 0};
    return static_cast<int>(table->system_count++);
}

uint64_t fs_key_hash(const struct fs_key *key)
{
    uint64_t hash = mix(key->len, static_cast<uint32_t>(key->type));
    for (uint32_t at = 0; at < key->len; at += 8) {
        uint64_t word = 0;
        memcpy(&word, key->bytes + at, key->len - at < 8 ? key->len - at : 8);
        hash = mix(hash, word);
    }
    return hash;
}

struct fs_node *fs_table_find(struct fs_table *table, int system, const struct fs_key *key)
{
    const uint32_t hash = hash_of(system, key);
    struct fs_node *node = table->buckets[hash & table->mask];
    while (node && !is_node(node, hash, system, key))
        node = node->next;
    if (node)
        node->flags |= FS_NODE_USED;
    return node;
}

struct fs_node *fs_table_enter(struct fs_table *table, int system, const struct fs_key *key)
{
    struct fs_node *node = fs_table_find(table, system, key);
    if (node)
        return node;
    const uint32_t hash = hash_of(system, key);
    node = make_node(hash, system, key);
    if (!node)
        return nullptr;
    if (table->count >= table->limit)
        make_room(table);
    node->next = table->buckets[hash & table->mask];
    table->buckets[hash & table->mask] = node;
    table->count++;
    node->flags |= FS_NODE_USED;
    return node;
}

struct fs_key fs_node_key(const struct fs_table *table, const struct fs_node *node)
{
    const int32_t *fsid = table->systems[node->system].fsid;
    return {{fsid[0], fsid[1]}, node->type, node->key_len, node_bytes(node)};
}

bool fs_node_place(struct fs_node *node, struct fs_node *parent, const char *name, uint32_t len)
{
    parent->children++; /* before the old parent, which may be the same, is let go */
    fs_node_forget_place(node);
    node->name = node == parent ? nullptr : static_cast<char *>(malloc(len));
    if (!node->name) {
        parent->children--;
        return false;
    }
    memcpy(node->name, name, len);
    node->name_len = static_cast<uint8_t>(len);
    node->parent = parent;
    node->flags |= FS_NODE_KNOWN;
    return true;
}

void fs_node_forget_place(struct fs_node *node)
{
    if (node->parent)
        node->parent->children--;
    free(node->name);
    node->parent = nullptr;
    node->name = nullptr;
    node->name_len = 0;
    node->flags &= static_cast<uint8_t>(~(FS_NODE_KNOWN | FS_NODE_AWAY));
}

void fs_table_forget(struct fs_table *table, int system)
{
    forget_all_places(table, system);
    for (uint32_t i = 0; i <= table->mask; i++)
        for (struct fs_node **link = &table->buckets[i]; *link;)
            if (is_of(*link, system) && may_go(*link))
                remove_at(table, link);
            else
                link = &(*link)->next;
}
