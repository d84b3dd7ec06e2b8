/*
 * What the entries of a directory are on the disk. In a busy directory most of those that are asked for are gone: so it
 * is read as a whole, and only an entry that may be there is asked for itself.
 */
#include "linux/fs/fs_state.h"

namespace
{

/* The directory, opened through the first mount that shows it; -1: it cannot be opened. */
int open_through_mounts(struct fs_engine *engine, const struct fs_node *node)
{
    const struct fs_world *world = &engine->world;
    const struct fs_key key = fs_node_key(&engine->table, node);
    for (unsigned n = 0;; n++) {
        const int mount_fd = world->open_mount(world->arg, key.fsid, n);
        const int fd = mount_fd < 0 ? -1 : world->asks->open(world->arg, mount_fd, &key);
        if (mount_fd < 0 || fd >= 0)
            return fd;
    }
}

void close_directory(struct fs_engine *engine, struct fs_open_directory *directory)
{
    if (!directory->node)
        return;
    if (directory->fd >= 0)
        engine->world.asks->close(engine->world.arg, directory->fd);
    fs_node_unpin(directory->node);
    directory->node = nullptr;
}

/* The place of a directory: from the one that its hash says on, where it is open, else a free one, else the first. */
struct fs_open_directory *place_of(struct fs_engine *engine, const struct fs_node *node)
{
    struct fs_open_directory *first = &engine->open[node->hash % FS_OPEN_DIRECTORIES];
    for (uint32_t i = 0; i < FS_OPEN_DIRECTORIES; i++) {
        struct fs_open_directory *place = &engine->open[(node->hash + i) % FS_OPEN_DIRECTORIES];
        if (place->node == node || !place->node)
            return place;
    }
    return first;
}

/* Stays open until the engine's function returns. */
struct fs_open_directory *open_directory(struct fs_engine *engine, struct fs_node *node)
{
    struct fs_open_directory *directory = place_of(engine, node);
    if (directory->node == node)
        return directory;
    close_directory(engine, directory);
    directory->node = node;
    directory->fd = open_through_mounts(engine, node);
    directory->listed = 0;
    fs_node_pin(node);
    return directory;
}

uint32_t bit_of(const char *name, uint32_t len)
{
    const struct fs_key key = {{}, 0, len, name};
    return static_cast<uint32_t>(fs_key_hash(&key) >> 20) % FS_NAME_BITS;
}

void note_name(void *to, const char *name, uint32_t len)
{
    const uint32_t bit = bit_of(name, len);
    static_cast<struct fs_open_directory *>(to)->names[bit / 64] |= uint64_t{1} << bit % 64;
}

void list(struct fs_engine *engine, struct fs_open_directory *directory)
{
    memset(directory->names, 0, sizeof(directory->names));
    directory->listed = engine->batch.number + engine->batch.count;
    if (engine->world.asks->list(engine->world.arg, directory->fd, note_name, directory))
        return;
    directory->listed = 0;
    directory->node->flags |= FS_NODE_BIG;
}

/* Whether the directory's names were read after the current record was. */
bool is_listed(struct fs_engine *engine, struct fs_open_directory *directory)
{
    if (directory->node->flags & FS_NODE_BIG)
        return false;
    if (directory->listed <= engine->batch.number)
        list(engine, directory);
    return directory->listed > engine->batch.number;
}

bool may_be_there(struct fs_engine *engine, struct fs_open_directory *directory, const struct fs_entry *entry)
{
    if (!is_listed(engine, directory))
        return true;
    const uint32_t bit = bit_of(entry->name, entry->name_len);
    return directory->names[bit / 64] >> bit % 64 & 1;
}

enum fs_entry_kind ask(struct fs_engine *engine, int fd, const struct fs_entry *entry, const struct fs_key *key)
{
    char name[NAME_MAX + 1];
    memcpy(name, entry->name, entry->name_len);
    name[entry->name_len] = '\0';
    engine->counts.asked_files++;
    return engine->world.asks->entry(engine->world.arg, fd, name, key);
}

}  // namespace

bool fs_entry_is(struct fs_engine *engine, struct fs_node *node, const struct fs_entry *entry, const struct fs_key *key)
{
    struct fs_open_directory *directory = open_directory(engine, node);
    if (directory->fd < 0 || !may_be_there(engine, directory, entry))
        return false;
    return ask(engine, directory->fd, entry, key) == (key ? FS_ENTRY_THIS : FS_ENTRY_WHITEOUT);
}

void fs_close_directories(struct fs_engine *engine)
{
    for (auto &directory : engine->open)
        close_directory(engine, &directory);
}
