/*
 * What is handed on: one event for each path of an entry, with all kinds of the record at once.
 */
#include <cctype>

#include "linux/fs/fs_state.h"
#include "orx_fmon.h"

namespace
{

/* An unlink and a link of one file by one name are joined whatever their order was. */
bool is_delete_first(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record, uint32_t kinds)
{
    constexpr uint32_t kBoth = FMON_CREATE | FMON_DELETE;
    if (!engine->world.ordered || (kinds & kBoth) != kBoth || (record->mask & FS_MASK_ONDIR) || !record->object.len ||
        !record->entry.name_len)
        return false;
    return fs_entry_is(engine, node, &record->entry, &record->object);
}

/* What an overlay calls files in its work directory, whiteouts among them: "#" and a number. */
bool is_work_name(const struct fs_entry *entry)
{
    if (entry->name_len < 2 || entry->name[0] != '#')
        return false;
    for (uint32_t i = 1; i < entry->name_len; i++)
        if (!isxdigit(static_cast<unsigned char>(entry->name[i])))
            return false;
    return true;
}

/* An overlay deletes a lower file by moving a whiteout onto its name. */
bool is_whiteout(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record)
{
    return !(record->mask & FS_MASK_ONDIR) && is_work_name(&record->entry) && record->to.name_len &&
           fs_entry_is(engine, node, &record->to, nullptr);
}

/* For what was not told of an entry that came while its directory may have been elsewhere: nothing is told of it. */
struct fs_entry untold(const struct fs_record *record) { return {record->object, "", 0}; }

/*
 * Where moves of a directory may be hidden, it lies where it seems to just before the next move that is seen, or now.
 * Whether all others on the way up lie where they do until that moment.
 */
bool meet_in_one_moment(struct fs_engine *engine, const struct fs_node *node)
{
    uint64_t moment = FS_AT_ONCE, next = FS_NEVER;
    for (; node && (node->flags & FS_NODE_KNOWN); node = node->parent) {
        const struct fs_key key = fs_node_key(&engine->table, node);
        const uint64_t moved = fs_batch_next_move(&engine->batch, &key);
        if (moved == FS_AT_ONCE || (node->motion.unsure == engine->epoch && moment != FS_AT_ONCE && moment != moved))
            return false;
        if (node->motion.unsure == engine->epoch)
            moment = moved;
        else
            next = moved < next ? moved : next;
    }
    return moment <= next;
}

/* The same of the moment when the move was seen after which others may be hidden. */
bool met_in_one_moment(const struct fs_engine *engine, const struct fs_node *node)
{
    uint32_t moment = 0, last = 0;
    for (; node && (node->flags & FS_NODE_KNOWN); node = node->parent)
        if (node->motion.unsure != engine->epoch)
            last = node->motion.moved > last ? node->motion.moved : last;
        else if (moment == 0)
            moment = node->motion.moved;
        else
            return false;
    return last < moment;
}

/*
 * Where moves may be hidden, the directory was at the path that is told at some moment, but maybe not at that of the
 * event. What is in it now, or was before, had that path; what came and went meanwhile may never have had it.
 */
bool had_path(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record,
              const struct fs_entry *entry, uint32_t kinds)
{
    const struct fs_entry mark = untold(record);
    if (!engine->paths.unsure || !record->object.len || !entry->name_len)
        return true;
    if (!(kinds & (FMON_CREATE | FMON_MOVED_TO)))
        return !fs_moves_has(&engine->moves, &record->object, &mark) && met_in_one_moment(engine, node);
    if (meet_in_one_moment(engine, node) && fs_entry_is(engine, node, entry, &record->object))
        return true;
    fs_moves_add(&engine->moves, &record->object, &mark);
    return false;
}

/* A directory that a rename replaces has no record of its removal but changes of itself, on its way out. */
bool is_own_end(const struct fs_paths *paths, const struct fs_entry *entry, uint32_t kinds)
{
    return paths->gone && !entry->name_len && !(kinds & ~uint32_t{FMON_ATTRIB | FMON_DELETE_SELF});
}

void count_losses(struct fs_engine *engine, bool told)
{
    const struct fs_paths *paths = &engine->paths;
    if (paths->failed || !told || (paths->missed && !paths->used))
        fs_engine_lost(engine, FS_LOST_UNRESOLVED);
    if (paths->too_long)
        fs_engine_lost(engine, FS_LOST_TOO_LONG);
}

void deliver(struct fs_engine *engine, struct fs_event *event)
{
    const struct fs_paths *paths = &engine->paths;
    for (size_t at = 0; at < paths->used; at += event->path_len + size_t{1}) {
        event->path = paths->bytes + at;
        event->path_len = static_cast<uint32_t>(strlen(event->path));
        engine->world.deliver(engine->world.arg, event);
    }
}

void deliver_entry(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record,
                   const struct fs_entry *entry, uint32_t kinds)
{
    if (record->pid == engine->own_pid || is_own_end(&engine->paths, entry, kinds))
        return;
    const bool told = engine->paths.used == 0 || had_path(engine, node, record, entry, kinds);
    count_losses(engine, told);
    if (!told || !engine->paths.used)
        return;
    if (kinds == FMON_MOVED_TO && is_whiteout(engine, node, record))
        kinds = FMON_DELETE;
    struct fs_event event = {};
    event.kinds = kinds;
    event.pid = record->pid;
    event.is_dir = record->mask & FS_MASK_ONDIR;
    event.rename = (record->mask & FS_MASK_RENAME) ? engine->renames : 0;
    event.delete_first = is_delete_first(engine, node, record, kinds);
    deliver(engine, &event);
}

enum fs_side side_of(const struct fs_paths *paths)
{
    if (paths->failed || paths->unsure)
        return FS_SIDE_UNKNOWN;
    return paths->inside ? FS_SIDE_INSIDE : FS_SIDE_OUTSIDE;
}

enum fs_side tell_entry(struct fs_engine *engine, const struct fs_record *record, const struct fs_entry *entry,
                        uint32_t kinds)
{
    const int system = entry->dir.len ? fs_table_system(&engine->table, entry->dir.fsid) : -1;
    if (system < 0)
        return FS_SIDE_NONE;
    struct fs_node *node = fs_table_enter(&engine->table, system, &entry->dir);
    if (!node) {
        fs_engine_lost(engine, FS_LOST_UNRESOLVED);
        return FS_SIDE_UNKNOWN;
    }
    if (node->outside == engine->generation && (entry->name_len || !engine->shallow)) {
        fs_loud_note(engine, node, record);
        return FS_SIDE_OUTSIDE;
    }
    fs_node_pin(node);
    fs_find_paths(engine, node, entry->name, entry->name_len, kinds & (FMON_DELETE_SELF | FMON_MOVE_SELF));
    const enum fs_side side = side_of(&engine->paths);
    deliver_entry(engine, node, record, entry, kinds);
    fs_node_unpin(node);
    return side;
}

}  // namespace

void fs_tell(struct fs_engine *engine, const struct fs_record *record, enum fs_side *from, enum fs_side *to)
{
    if (record->mask & FS_MASK_RENAME) {
        engine->renames += engine->renames == UINT32_MAX ? 2 : 1;
        *from = tell_entry(engine, record, &record->entry, FMON_MOVED_FROM);
        *to = tell_entry(engine, record, &record->to, FMON_MOVED_TO);
        return;
    }
    const auto kinds = static_cast<uint32_t>(record->mask & FMON_ALL_EVENTS);
    *from = *to = kinds ? tell_entry(engine, record, &record->entry, kinds) : FS_SIDE_NONE;
}
