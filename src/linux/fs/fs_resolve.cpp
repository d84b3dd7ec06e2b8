/*
 * Where a directory lay at the current record. The records that wait come first: the first of them that moves, makes or
 * removes the directory says where it lay until then. Else the kernel is asked, where it lies now; then all is read
 * that came meanwhile, and looked ahead again: what is asked of the kernel holds only if nothing happened since.
 */
#include "linux/fs/fs_state.h"
#include "orx_fmon.h"

namespace
{

constexpr uint64_t kIn = FMON_CREATE | FMON_MOVED_TO;

/* Halves of renames may have been joined into one record, out of which their order cannot be told. */
const struct fs_entry *place_before(const struct fs_node *node, const struct fs_record *record)
{
    if (record->mask & FS_MASK_RENAME)
        return record->entry.dir.len ? &record->entry : nullptr;
    const bool left = record->mask & FMON_MOVED_FROM;
    if (left && (record->mask & kIn))
        return nullptr;
    /* Between the halves of a rename the directory lies in its new place. */
    if ((record->mask & FMON_MOVED_TO) && !(node->flags & FS_NODE_AWAY))
        return nullptr;
    return &record->entry;
}

enum fs_ahead_result look_ahead(struct fs_engine *engine, struct fs_node *node)
{
    struct fs_record record;
    const struct fs_key key = fs_node_key(&engine->table, node);
    const enum fs_ahead_result found = fs_batch_ahead(&engine->batch, &key, &record);
    if (found != FS_AHEAD_FOUND)
        return found;
    const struct fs_entry *place = place_before(node, &record);
    return place && fs_place_at(engine, node, place) ? FS_AHEAD_FOUND : FS_AHEAD_BROKEN;
}

/* Through each mount in turn: one that shows a part of the file system only may not show the directory. */
enum fs_asked ask(struct fs_engine *engine, struct fs_node *node, struct fs_place *out)
{
    const struct fs_world *world = &engine->world;
    const struct fs_key key = fs_node_key(&engine->table, node);
    enum fs_asked answer = FS_ASKED_ERROR;
    engine->counts.asked++;
    for (unsigned n = 0;; n++) {
        const int fd = world->open_mount(world->arg, key.fsid, n);
        if (fd < 0)
            return answer;
        answer = world->asks->place(world->arg, fd, &key, out);
        if (answer != FS_ASKED_TOP)
            return answer;
    }
}

bool believe(struct fs_engine *engine, struct fs_node *node, enum fs_asked answer, const struct fs_place *place)
{
    engine->paths.gone |= answer == FS_ASKED_GONE;
    if (answer == FS_ASKED_TOP)
        node->top = engine->mount_generation;
    return answer == FS_ASKED_TOP || (answer == FS_ASKED_PLACE && fs_place_asked(engine, node, place));
}

}  // namespace

bool fs_place_at(struct fs_engine *engine, struct fs_node *node, const struct fs_entry *entry)
{
    struct fs_node *parent = nullptr;
    fs_node_pin(node);
    if (entry->dir.len && entry->name_len)
        parent = fs_table_enter(&engine->table, node->system, &entry->dir);
    fs_node_unpin(node);
    if (parent)
        return fs_node_place(node, parent, entry->name, entry->name_len);
    fs_node_forget_place(node);
    return false;
}

bool fs_place_asked(struct fs_engine *engine, struct fs_node *node, const struct fs_place *place)
{
    const struct fs_entry entry = {place->parent.key, place->name, place->name_len};
    if (!fs_place_at(engine, node, &entry))
        return false;
    if (place->deleted)
        node->flags |= FS_NODE_DEAD;
    return true;
}

bool fs_resolve(struct fs_engine *engine, struct fs_node *node)
{
    if ((node->flags & FS_NODE_KNOWN) || fs_is_top(engine, node))
        return true;
    enum fs_ahead_result ahead = look_ahead(engine, node);
    if (ahead != FS_AHEAD_NONE)
        return ahead == FS_AHEAD_FOUND;
    struct fs_place place;
    const enum fs_asked answer = ask(engine, node, &place);
    if (!fs_engine_read_more(engine))
        return false;
    ahead = look_ahead(engine, node);
    if (ahead != FS_AHEAD_NONE)
        return ahead == FS_AHEAD_FOUND;
    if (answer == FS_ASKED_PLACE && fs_batch_anonymous(&engine->batch))
        return false;
    return believe(engine, node, answer, &place);
}
