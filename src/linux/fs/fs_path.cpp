/*
 * From a directory upwards: at each anchor on the way a path is complete, at each joint the way parts. What is found to
 * lie below no recursive anchor is remembered as outside, so that the next record from there costs one look-up.
 */
#include <cstdlib>

#include "linux/fs/fs_state.h"

namespace
{

constexpr uint32_t kMostJoints = 16; /* on one way: a file system may be bound below itself */
constexpr uint32_t kMostWays = 64;

struct climb {
    struct fs_engine *engine;
    uint32_t ways;
    bool ended;
    char text[FS_PATH_MAX + 1]; /* filled from its end */
};

/* Where the way has come to. */
struct step {
    struct fs_node *node;
    uint32_t at;    /* the first byte of what lies below the node */
    uint32_t names; /* below the node; 0: the node itself */
    uint32_t joints;
};

constexpr uint32_t kTooLong = UINT32_MAX;

/* Puts a name before what is there; what is there begins at the place that is returned. */
uint32_t prepend(struct climb *c, uint32_t at, const char *name, uint32_t len)
{
    if (at == kTooLong || at < len + 1)
        return kTooLong;
    if (at < sizeof(c->text))
        c->text[--at] = '/';
    memcpy(c->text + at - len, name, len);
    return at - len;
}

bool has_path(const struct fs_paths *paths, const char *path)
{
    size_t at = 0;
    while (at < paths->used && strcmp(paths->bytes + at, path) != 0)
        at += strlen(paths->bytes + at) + 1;
    return at < paths->used;
}

char *room_for_path(struct fs_paths *paths, size_t size)
{
    if (paths->room - paths->used < size) {
        const size_t room = paths->room * 2 + size;
        auto *bytes = static_cast<char *>(realloc(paths->bytes, room));
        if (!bytes)
            return nullptr;
        paths->bytes = bytes;
        paths->room = room;
    }
    return paths->bytes + paths->used;
}

/* The anchor's path, and what lies below. */
void add_path(struct climb *c, const struct fs_tie *anchor, const struct step *step)
{
    struct fs_paths *paths = &c->engine->paths;
    const uint32_t rest = step->at == kTooLong ? 0 : static_cast<uint32_t>(sizeof(c->text)) - step->at;
    const uint32_t prefix = rest && anchor->len == 1 ? 0 : anchor->len;
    const uint32_t len = prefix + (rest ? 1 : 0) + rest;
    if (step->at == kTooLong || len > FS_PATH_MAX) {
        paths->too_long = true;
        return;
    }
    char *path = room_for_path(paths, len + size_t{1});
    if (!path) {
        paths->failed = true;
        return;
    }
    memcpy(path, anchor->text, prefix);
    if (rest)
        path[prefix] = '/';
    memcpy(path + len - rest, c->text + step->at, rest);
    path[len] = '\0';
    if (!has_path(paths, path))
        paths->used += len + size_t{1};
}

/* True: the anchor is one that all below it belongs to. */
bool meet_anchor(struct climb *c, const struct fs_tie *anchor, const struct step *step)
{
    const bool own_end = c->ended && anchor->by_itself && step->names == 0;
    if (anchor->displaced && !own_end)
        return false;
    if (anchor->recursive || step->names <= 1)
        add_path(c, anchor, step);
    return anchor->recursive;
}

bool go_up(struct climb *c, struct step step);

bool follow_joint(struct climb *c, const struct fs_tie *joint, const struct step *step)
{
    if (step->joints == kMostJoints || c->ways == kMostWays) {
        c->engine->paths.failed = true;
        return false;
    }
    c->ways++;
    const uint32_t at = prepend(c, step->at, joint->text, joint->len);
    return go_up(c, {joint->in, at, step->names + 1, step->joints + 1});
}

bool meet_ties(struct climb *c, const struct step *step)
{
    bool inside = false;
    for (const struct fs_tie *tie = step->node->ties; tie; tie = tie->next)
        inside |= tie->in ? follow_joint(c, tie, step) : meet_anchor(c, tie, step);
    return inside;
}

/* From `node` to the top, or to what is marked. */
void mark_outside(const struct fs_engine *engine, struct fs_node *node)
{
    for (; node && node->outside != engine->generation; node = node->parent)
        if (!node->ties)
            node->outside = engine->generation;
}

void note_unsure(struct fs_engine *engine, struct fs_node *node)
{
    engine->paths.unsure = true;
    engine->paths.missed |= engine->moves.crossed && !(node->flags & FS_NODE_MISSED);
    node->flags |= FS_NODE_MISSED;
}

/* Up by one name. False: there is nothing above, or it cannot be found out. */
bool step_up(struct climb *c, struct step *step)
{
    struct fs_engine *engine = c->engine;
    if (!fs_resolve(engine, step->node)) {
        engine->paths.failed = true;
        return false;
    }
    struct fs_node *node = step->node;
    if (node->motion.unsure == engine->epoch)
        note_unsure(engine, node);
    if (!(node->flags & FS_NODE_KNOWN))
        return false;
    if (step->names++ > engine->table.count) { /* a circle: not what the disk looks like */
        fs_node_forget_place(node);
        engine->paths.failed = true;
        return false;
    }
    step->at = prepend(c, step->at, node->name, node->name_len);
    step->node = node->parent;
    return true;
}

/* Whether a recursive anchor is at the node or above. */
bool go_up(struct climb *c, struct step step)
{
    struct fs_engine *engine = c->engine;
    struct fs_node *outside_from = step.node;
    bool inside = false;
    const bool failed_before = engine->paths.failed;
    engine->paths.failed = false;
    do {
        if (step.node->outside == engine->generation)
            break;
        if (step.node->ties && meet_ties(c, &step)) {
            inside = true;
            outside_from = nullptr;
        } else if (!outside_from)
            outside_from = step.node;
    } while (step_up(c, &step));
    if (!engine->paths.failed)
        mark_outside(engine, outside_from);
    engine->paths.failed |= failed_before;
    return inside;
}

/* A directory outside may still be an entry of one that is watched itself. */
void meet_parent(struct climb *c, struct fs_node *directory)
{
    struct step step = {directory, sizeof(c->text), 0, 0};
    if (step_up(c, &step))
        meet_ties(c, &step);
}

}  // namespace

void fs_find_paths(struct fs_engine *engine, struct fs_node *directory, const char *name, uint32_t name_len, bool ended)
{
    struct fs_paths *paths = &engine->paths;
    paths->used = 0;
    paths->inside = paths->failed = paths->gone = paths->unsure = paths->missed = paths->too_long = false;
    struct climb c;
    c.engine = engine;
    c.ways = 0;
    c.ended = ended;
    uint32_t at = sizeof(c.text);
    if (name_len)
        at = prepend(&c, at, name, name_len);
    if (directory->outside != engine->generation)
        paths->inside = go_up(&c, {directory, at, name_len ? 1u : 0u, 0});
    else if (!name_len && engine->shallow)
        meet_parent(&c, directory);
}
