/*
 * fs_table.h: the directories that the engine knows, by file system and handle. A directory that is a parent of another
 * in the table, or is pinned, stays; of the rest the least recently used ones go when the table is full.
 */
#ifndef FMON_FS_TABLE_H
#define FMON_FS_TABLE_H

#include <cstdint>

#include "linux/fs/fs_key.h"

struct fs_tie;

enum {
    FS_NODE_KNOWN = 1,   /* parent and name say where it lies */
    FS_NODE_DEAD = 2,    /* it was removed; parent and name say where it was */
    FS_NODE_USED = 4,    /* since the sweep passed it */
    FS_NODE_ABOVE = 8,   /* an anchor lies, or lay, below it */
    FS_NODE_AWAY = 16,   /* the first half of a rename was read, the second not yet */
    FS_NODE_MISSED = 32, /* what a hidden move kept from being told is counted */
    FS_NODE_BIG = 64     /* it has too many entries to be read as a whole */
};

struct fs_motion {
    uint32_t unsure; /* the epoch in which a record that moved the directory may have been hidden */
    uint32_t died;   /* the epoch in which it was removed: records from inside may be behind; 0: not */
    uint32_t moved;  /* the number of its last move, among all that records told of; 0: none */
};

struct fs_node {
    struct fs_node *next; /* of the same bucket */
    struct fs_node *parent;
    char *name; /* name_len bytes */
    struct fs_tie *ties;
    uint32_t hash;
    uint32_t outside; /* the generation in which it was found to lie below no recursive anchor */
    uint32_t top;     /* the generation of mounts in which no parent of it could be seen */
    struct fs_motion motion;
    uint32_t children; /* directories with this one as parent */
    uint32_t pins;
    int32_t type;
    uint16_t system;
    uint8_t key_len; /* the handle's bytes follow the structure */
    uint8_t name_len;
    uint8_t flags;
    uint16_t heard; /* records of files in it that nobody wanted, see fs_loud.cpp */
};

struct fs_known_system {
    int32_t fsid[2];
    uint32_t ties; /* anchors and joints on it */
};

struct fs_table {
    struct fs_node **buckets;
    uint32_t mask;  /* number of buckets - 1 */
    uint32_t count; /* directories */
    uint32_t limit;
    uint32_t epoch; /* the current one, from 1 */
    uint32_t hand;  /* the bucket where the next sweep begins */
    struct fs_known_system *systems;
    uint32_t system_count;
};

bool fs_table_init(struct fs_table *table, uint32_t limit);
void fs_table_release(struct fs_table *table);

/* The index of a file system, -1: none of its directories can be in the table. */
int fs_table_system(const struct fs_table *table, const int32_t fsid[2]);

/* The same; enters the file system. -1: no memory. */
int fs_table_enter_system(struct fs_table *table, const int32_t fsid[2]);

uint64_t fs_key_hash(const struct fs_key *key); /* of type and handle */

struct fs_node *fs_table_find(struct fs_table *table, int system, const struct fs_key *key);

/* Finds or makes it. A node that is not pinned may go in any such call. Null: no memory. */
struct fs_node *fs_table_enter(struct fs_table *table, int system, const struct fs_key *key);

/* The key, which borrows the node's bytes. */
struct fs_key fs_node_key(const struct fs_table *table, const struct fs_node *node);

/* Where it lies. False: no memory, and it is not known where. */
bool fs_node_place(struct fs_node *node, struct fs_node *parent, const char *name, uint32_t len);
void fs_node_forget_place(struct fs_node *node);

/* Forgets the places of all directories of a file system (-1: of all) and removes those that are not pinned. */
void fs_table_forget(struct fs_table *table, int system);

inline void fs_node_pin(struct fs_node *node) { node->pins++; }
inline void fs_node_unpin(struct fs_node *node) { node->pins--; }

#endif
