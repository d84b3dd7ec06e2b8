/*
 * Anchors and joints: what is added and removed, and what becomes of anchors when directories above them are moved.
 */
#include <cerrno>
#include <cstdlib>

#include "linux/fs/fs_state.h"
#include "orx_fmon.h"

namespace
{

constexpr uint32_t kDeepest = 1u << 20; /* directories above an anchor; a disk has no circles */

struct fs_tie *make_tie(const char *text, uint64_t id)
{
    auto *tie = static_cast<struct fs_tie *>(calloc(1, sizeof(struct fs_tie)));
    char *copy = strdup(text);
    if (!tie || !copy) {
        free(tie);
        free(copy);
        return nullptr;
    }
    tie->text = copy;
    tie->len = static_cast<uint32_t>(strlen(copy));
    tie->id = id;
    return tie;
}

/* The directory's node, pinned, its file system counted. Null: no memory. */
struct fs_node *hold(struct fs_engine *engine, const struct fs_key *key)
{
    const int system = fs_table_enter_system(&engine->table, key->fsid);
    struct fs_node *node = system < 0 ? nullptr : fs_table_enter(&engine->table, system, key);
    if (!node)
        return nullptr;
    fs_node_pin(node);
    engine->table.systems[system].ties++;
    return node;
}

/* Of a file system without anchors and joints no record is looked at: nothing of it stays true. */
void let_go(struct fs_engine *engine, struct fs_node *node)
{
    if (!node)
        return;
    const int system = node->system;
    fs_node_unpin(node);
    if (--engine->table.systems[system].ties > 0)
        return;
    fs_loud_release(engine, system);
    fs_table_forget(&engine->table, system);
}

void free_tie(struct fs_engine *engine, struct fs_tie *tie)
{
    let_go(engine, tie->node);
    let_go(engine, tie->in);
    free(tie->text);
    free(tie);
}

void attach(struct fs_engine *engine, struct fs_tie *tie)
{
    tie->next = tie->node->ties;
    tie->node->ties = tie;
    tie->next_of_all = engine->ties;
    engine->ties = tie;
    engine->generation++;
    engine->counts.anchors += !tie->in;
    engine->shallow += !tie->in && !tie->recursive;
    fs_loud_check(engine, FS_LOUD_NEW_TIE);
}

void detach(struct fs_engine *engine, struct fs_tie *tie)
{
    struct fs_tie **link = &tie->node->ties;
    while (*link != tie)
        link = &(*link)->next;
    *link = tie->next;
    engine->counts.anchors -= !tie->in;
    engine->shallow -= !tie->in && !tie->recursive;
}

bool agrees(const struct fs_engine *engine, const struct fs_node *node, const struct fs_place *place)
{
    const struct fs_key parent = fs_node_key(&engine->table, node->parent);
    return fs_key_equal(&parent, &place->parent.key) && node->name_len == place->name_len &&
           memcmp(node->name, place->name, place->name_len) == 0;
}

/* Where a directory on the way up lies: 0, or what fs_engine_add() returns. */
int learn_place(struct fs_engine *engine, struct fs_node *node, enum fs_asked answer, const struct fs_place *place)
{
    if (answer != FS_ASKED_PLACE || place->deleted)
        return answer == FS_ASKED_ERROR ? FMON_ENOTSUP : FMON_ENOENT;
    if (!(node->flags & FS_NODE_KNOWN))
        return fs_place_asked(engine, node, place) ? 0 : FMON_ENOMEM;
    if (agrees(engine, node, place))
        return 0;
    fs_node_forget_place(node); /* records that say otherwise wait */
    return -EAGAIN;
}

/* Follows the way up to the root of the mount that the descriptor is on. */
int ask_above(struct fs_engine *engine, struct fs_tie *anchor, int fd)
{
    const struct fs_world *world = &engine->world;
    struct fs_place place;
    struct fs_node *node = anchor->node;
    for (anchor->depth = 0; anchor->depth < kDeepest; anchor->depth++) {
        const struct fs_key key = fs_node_key(&engine->table, node);
        const enum fs_asked answer = world->asks->place(world->arg, fd, &key, &place);
        engine->counts.asked++;
        node->flags |= FS_NODE_ABOVE;
        if (answer == FS_ASKED_TOP)
            return 0;
        const int code = learn_place(engine, node, answer, &place);
        if (code != 0)
            return code;
        node = node->parent;
    }
    return FMON_ENOTSUP;
}

/* What was moved before the way up was known shows in what has come meanwhile. */
int settle(struct fs_engine *engine, const struct fs_tie *anchor)
{
    const uint32_t before = engine->displacements;
    const bool complete = fs_engine_read_more(engine);
    fs_engine_process_all(engine);
    return complete && engine->displacements == before && !(anchor->node->flags & FS_NODE_DEAD) ? 0 : -EAGAIN;
}

int find_way_up(struct fs_engine *engine, struct fs_tie *tie, int fd)
{
    engine->mount_generation++; /* the anchor's mount may show more than the others */
    int code = ask_above(engine, tie, fd);
    if (code != 0 && !tie->recursive && code != FMON_ENOMEM && code != -EAGAIN) {
        tie->depth = 1; /* nothing but the directory itself is looked up, which has a name */
        code = 0;
    }
    return code == 0 ? settle(engine, tie) : code;
}

/* The root of the mount itself gives the path no name. */
bool lies_above(const struct fs_node *node, const struct fs_tie *anchor)
{
    const struct fs_node *above = anchor->node;
    for (uint32_t i = 1; i < anchor->depth && above; i++) {
        above = above->parent;
        if (above == node)
            return true;
    }
    return false;
}

bool is_live(const struct fs_tie *tie) { return !tie->in && !tie->displaced; }

/* Whether a record that waits moves the anchor's directory or one above. */
bool will_move(struct fs_engine *engine, const struct fs_tie *anchor)
{
    struct fs_record record;
    const struct fs_node *node = anchor->node;
    for (uint32_t i = 0; i < anchor->depth && node; i++) {
        const struct fs_key key = fs_node_key(&engine->table, node);
        if (fs_batch_ahead(&engine->batch, &key, &record) != FS_AHEAD_NONE)
            return true;
        node = node->parent;
    }
    return false;
}

/* Whether the anchor still is where its path says. */
bool is_in_place(struct fs_engine *engine, struct fs_tie *anchor)
{
    const struct fs_world *world = &engine->world;
    const struct fs_key key = fs_node_key(&engine->table, anchor->node);
    const int fd = world->asks->open_path(world->arg, anchor->text, &key);
    if (fd < 0)
        return false;
    const int code = ask_above(engine, anchor, fd);
    world->asks->close(world->arg, fd);
    return code == 0 || !anchor->recursive;
}

}  // namespace

int fs_engine_add(struct fs_engine *engine, const struct fs_anchor *anchor)
{
    if (anchor->key.len == 0 || anchor->key.len > FS_HANDLE_MAX || strlen(anchor->path) > FS_PATH_MAX)
        return FMON_EINVAL;
    struct fs_tie *tie = make_tie(anchor->path, anchor->id);
    if (!tie)
        return FMON_ENOMEM;
    tie->recursive = anchor->recursive;
    tie->node = hold(engine, &anchor->key);
    const int code = tie->node ? find_way_up(engine, tie, anchor->fd) : FMON_ENOMEM;
    if (code == 0)
        attach(engine, tie);
    else
        free_tie(engine, tie);
    fs_close_directories(engine);
    return code;
}

int fs_engine_join(struct fs_engine *engine, const struct fs_joint *joint)
{
    struct fs_tie *tie = make_tie(joint->name, joint->id);
    if (!tie)
        return FMON_ENOMEM;
    tie->node = hold(engine, &joint->root);
    tie->in = tie->node ? hold(engine, &joint->in) : nullptr;
    if (!tie->in) {
        free_tie(engine, tie);
        return FMON_ENOMEM;
    }
    engine->mount_generation++;
    attach(engine, tie);
    return 0;
}

unsigned fs_engine_remove(struct fs_engine *engine, uint64_t id)
{
    unsigned count = 0;
    for (struct fs_tie **link = &engine->ties; *link;) {
        struct fs_tie *tie = *link;
        if (tie->id != id) {
            link = &tie->next_of_all;
            continue;
        }
        *link = tie->next_of_all;
        detach(engine, tie);
        free_tie(engine, tie);
        count++;
    }
    return count;
}

void fs_engine_flush(struct fs_engine *engine)
{
    engine->forget = false;
    engine->generation++;
    engine->mount_generation++;
    fs_moves_clear(&engine->moves);
    fs_loud_release(engine, -1);
    fs_table_forget(&engine->table, -1);
    for (struct fs_tie *tie = engine->ties; tie; tie = tie->next_of_all)
        if (is_live(tie) && !is_in_place(engine, tie))
            fs_displace(engine, tie, false);
    const bool complete = fs_engine_read_more(engine);
    for (struct fs_tie *tie = engine->ties; tie; tie = tie->next_of_all)
        if (is_live(tie) && (!complete || will_move(engine, tie)))
            fs_displace(engine, tie, false);
}

void fs_displace(struct fs_engine *engine, struct fs_tie *anchor, bool by_itself)
{
    anchor->displaced = true;
    anchor->by_itself = by_itself;
    engine->world.displaced(engine->world.arg, anchor->id);
}

void fs_displace_above(struct fs_engine *engine, struct fs_node *moved, bool removed)
{
    if (!(moved->flags & FS_NODE_ABOVE))
        return;
    engine->displacements++;
    for (struct fs_tie *tie = moved->ties; tie; tie = tie->next)
        if (is_live(tie) && (removed || tie->depth))
            fs_displace(engine, tie, true);
    for (struct fs_tie *tie = engine->ties; tie; tie = tie->next_of_all)
        if (is_live(tie) && lies_above(moved, tie))
            fs_displace(engine, tie, false);
}
