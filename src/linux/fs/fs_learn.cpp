/*
 * What a record says of the directory that it happened to. The table is true as of the current record: a rename that
 * waits further behind has not happened yet.
 */
#include "linux/fs/fs_state.h"
#include "orx_fmon.h"

namespace
{

constexpr uint64_t kHalves = FMON_MOVED_FROM | FMON_MOVED_TO;
constexpr uint64_t kDirectoryMade = uint64_t{FMON_CREATE} | FS_MASK_ONDIR;

/* What lay outside may lie inside now, with all that is below. */
void came_inside(struct fs_engine *engine, struct fs_node *node, enum fs_side from, enum fs_side to)
{
    if (to != FS_SIDE_INSIDE && to != FS_SIDE_UNKNOWN)
        return;
    node->outside = 0;
    if (from != FS_SIDE_INSIDE)
        engine->generation++;
}

/* A rename that cannot be seen may have followed. It equals one that was seen: it crosses the border only if one did.
 */
void doubt(struct fs_engine *engine, struct fs_node *node)
{
    if (!(node->flags & FS_NODE_DEAD)) /* which cannot be asked for */
        fs_node_forget_place(node);
    node->motion.unsure = engine->epoch;
    if (!engine->moves.crossed)
        return;
    node->outside = 0;
    node->flags &= static_cast<uint8_t>(~FS_NODE_MISSED);
    engine->generation++;
}

/* A directory that nobody knew lies where its parent lies. */
void share_side(const struct fs_engine *engine, struct fs_node *node)
{
    if (node->parent && node->parent->outside == engine->generation && !node->ties)
        node->outside = engine->generation;
}

/* Where a rename brought it. */
void arrive(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record, const struct fs_entry *at)
{
    const bool was_new = node->outside != engine->generation;
    node->motion.unsure = 0;
    node->motion.moved = ++engine->moves.number;
    if (!fs_place_at(engine, node, at))
        return;
    if (was_new)
        share_side(engine, node);
    if (fs_moves_has(&engine->moves, &record->object, at))
        doubt(engine, node);
}

void learn_rename(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record, enum fs_side from,
                  enum fs_side to)
{
    if (record->entry.dir.len)
        fs_moves_add(&engine->moves, &record->object, &record->entry);
    engine->moves.crossed |= from != to || to == FS_SIDE_UNKNOWN;
    fs_displace_above(engine, node, false);
    came_inside(engine, node, from, to);
    if (record->to.dir.len)
        arrive(engine, node, record, &record->to);
    else
        fs_node_forget_place(node);
}

/* Halves of renames, where the kernel has no whole ones. The order of joined halves is lost. */
void learn_halves(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record, enum fs_side side)
{
    const bool went = record->mask & FMON_MOVED_FROM;
    const bool came = record->mask & FMON_MOVED_TO;
    fs_displace_above(engine, node, false);
    engine->moves.crossed = true; /* whether it did cannot be told from one half */
    if (came)
        came_inside(engine, node, FS_SIDE_UNKNOWN, side);
    if (went) {
        fs_moves_add(&engine->moves, &record->object, &record->entry);
        fs_node_forget_place(node);
        if (!came)
            node->flags |= FS_NODE_AWAY;
    } else
        arrive(engine, node, record, &record->entry);
}

void learn_entry(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record, bool is_new,
                 enum fs_side side)
{
    if (record->mask & kHalves)
        learn_halves(engine, node, record, side);
    else if (is_new && fs_place_at(engine, node, &record->entry)) {
        node->motion.moved = ++engine->moves.number;
        share_side(engine, node);
    }
    if (!(record->mask & FMON_DELETE))
        return;
    if (!(record->mask & kHalves))
        fs_place_at(engine, node, &record->entry);
    fs_displace_above(engine, node, true);
    node->flags |= FS_NODE_DEAD;
    node->motion.died = engine->epoch;
    node->flags &= static_cast<uint8_t>(~FS_NODE_USED);
}

}  // namespace

void fs_learn(struct fs_engine *engine, const struct fs_record *record, enum fs_side from, enum fs_side to)
{
    if (!record->object.len) {
        engine->forget |= record->mask != kDirectoryMade;
        return;
    }
    const int system = fs_table_system(&engine->table, record->object.fsid);
    const bool is_new = !fs_table_find(&engine->table, system, &record->object);
    struct fs_node *node = fs_table_enter(&engine->table, system, &record->object);
    if (!node)
        return; /* what the table does not have it asks for */
    fs_node_pin(node);
    if (record->mask & FS_MASK_RENAME)
        learn_rename(engine, node, record, from, to);
    else
        learn_entry(engine, node, record, is_new, to);
    fs_node_unpin(node);
}
