/*
 * Loud directories outside: of the files in them the kernel is asked to report nothing, so that they cost nothing. What
 * happens to directories it goes on reporting, so that whatever brings a silent directory into a watched tree is heard;
 * but only afterwards, and what happened to its files until then is lost. So whenever something that lay outside may
 * lie inside, each silent directory is looked at: one that does not certainly lie outside is heard again, and that is
 * counted as a loss.
 */
#include <cstdlib>

#include "linux/fs/fs_state.h"

namespace
{

constexpr uint16_t kLoud = 1024; /* records of its files, since the last time that it was loud */

uint32_t find(const struct fs_loud *loud, const struct fs_node *node)
{
    uint32_t i = 0;
    while (i < loud->count && loud->all[i] != node)
        i++;
    return i;
}

/* False: the kernel cannot be told now; it is tried again. */
bool hear_again(struct fs_engine *engine, uint32_t i)
{
    struct fs_loud *loud = &engine->loud;
    struct fs_node *node = loud->all[i];
    const struct fs_key key = fs_node_key(&engine->table, node);
    if (!engine->world.heed(engine->world.arg, &key)) {
        loud->retry = true;
        return false;
    }
    fs_node_unpin(node);
    loud->all[i] = loud->all[--loud->count];
    return true;
}

/* The places are taken in turn. */
bool make_room(struct fs_engine *engine)
{
    struct fs_loud *loud = &engine->loud;
    if (loud->count < loud->limit)
        return true;
    loud->next = (loud->next + 1) % loud->limit;
    return hear_again(engine, loud->next);
}

void silence(struct fs_engine *engine, struct fs_node *node)
{
    struct fs_loud *loud = &engine->loud;
    const bool is_new = find(loud, node) == loud->count; /* else the kernel has dropped its mark */
    const struct fs_key key = fs_node_key(&engine->table, node);
    if ((is_new && !make_room(engine)) || !engine->world.ignore(engine->world.arg, &key) || !is_new)
        return;
    fs_node_pin(node);
    loud->all[loud->count++] = node;
}

/* And has no watch of its own. */
bool lies_outside(struct fs_engine *engine, struct fs_node *node)
{
    const struct fs_paths *paths = &engine->paths;
    if (node->ties)
        return false;
    fs_find_paths(engine, node, nullptr, 0, false);
    return !paths->inside && !paths->failed && !paths->unsure;
}

void look_at_all(struct fs_engine *engine, enum fs_loud_why why)
{
    struct fs_loud *loud = &engine->loud;
    loud->generation = engine->generation;
    for (uint32_t i = loud->count; i-- > 0;) {
        if (lies_outside(engine, loud->all[i]))
            continue;
        const bool heard = hear_again(engine, i);
        if (why == FS_LOUD_MOVED || heard == (why == FS_LOUD_RETRY))
            fs_engine_lost(engine, FS_LOST_UNRESOLVED);
    }
}

}  // namespace

bool fs_loud_init(struct fs_engine *engine)
{
    struct fs_loud *loud = &engine->loud;
    loud->limit = engine->world.ignore ? engine->world.most_ignored : 0;
    if (loud->limit)
        loud->all = static_cast<struct fs_node **>(calloc(loud->limit, sizeof(struct fs_node *)));
    return loud->all || !loud->limit;
}

void fs_loud_note(struct fs_engine *engine, struct fs_node *node, const struct fs_record *record)
{
    if (!engine->loud.limit || node->ties || (record->mask & (FS_MASK_ONDIR | FS_MASK_RENAME)) || ++node->heard < kLoud)
        return;
    node->heard = 0;
    silence(engine, node);
}

void fs_loud_check(struct fs_engine *engine, enum fs_loud_why why)
{
    struct fs_loud *loud = &engine->loud;
    if (why == FS_LOUD_RETRY ? !loud->retry : loud->generation == engine->generation)
        return;
    loud->retry &= why != FS_LOUD_RETRY;
    look_at_all(engine, why);
}

void fs_loud_release(struct fs_engine *engine, int system)
{
    for (uint32_t i = engine->loud.count; i-- > 0;)
        if (system < 0 || engine->loud.all[i]->system == system)
            hear_again(engine, i);
}
