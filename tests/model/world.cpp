#include "world.h"

#include <algorithm>
#include <cstdlib>

namespace model
{

World::World() : tree_(&nodes_.emplace_back(Node{'d'})), outer_(&nodes_.emplace_back(Node{'d'})) {}

Entry *World::enter(Node &dir, const std::string &name, Node &node)
{
    if (dir.entries.count(name))
        abort();
    Entry *entry = &entries_.emplace_back(Entry{&dir, name, &node});
    dir.entries[name] = entry;
    if (node.kind == 'd')
        node.self = entry;
    node.moved = round;
    return entry;
}

Entry *World::add(Node &dir, const std::string &name, char kind)
{
    return enter(dir, name, nodes_.emplace_back(Node{kind}));
}

Entry *World::link(Node &node, Node &dir, const std::string &name) { return enter(dir, name, node); }

void World::remove(Entry &entry)
{
    entry.dir->entries.erase(entry.name);
    entry.gone = true;
    entry.node->moved = round;
}

void World::move(Entry &entry, Node &dir, const std::string &name)
{
    if (const auto there = dir.entries.find(name); there != dir.entries.end())
        remove(*there->second);
    entry.dir->entries.erase(entry.name);
    entry.dir = &dir;
    entry.name = name;
    dir.entries[name] = &entry;
    entry.node->moved = round;
}

void World::exchange(Entry &one, Entry &other)
{
    std::swap(one.dir, other.dir);
    std::swap(one.name, other.name);
    one.dir->entries[one.name] = &one;
    other.dir->entries[other.name] = &other;
    one.node->moved = other.node->moved = round;
}

void World::mount(Node &point, Node &root)
{
    mounts_.push_back({&point, &root});
    root.kept = true;
}

/* A directory may be mounted at both points. */
void World::unmount(const Node &point)
{
    for (const Mount &mount : mounts_)
        if (mount.point == &point)
            mount.root->kept = false;
    std::erase_if(mounts_, [&](const Mount &mount) { return mount.point == &point; });
    for (const Mount &mount : mounts_)
        mount.root->kept = true;
}

/* A mount point is in sight by the way of its parent only; what it covers is not. */
std::vector<std::string> World::seen(const Node &dir) const
{
    if (&dir == tree_)
        return {"tree"};
    std::vector<std::string> paths = dir.self ? seen(*dir.self) : std::vector<std::string>();
    for (const Mount &mount : mounts_) {
        if (mount.root != &dir)
            continue;
        const std::vector<std::string> more = seen(*mount.point->self);
        paths.insert(paths.end(), more.begin(), more.end());
    }
    return paths;
}

std::vector<std::string> World::seen(const Entry &entry) const
{
    std::vector<std::string> paths = seen(*entry.dir);
    for (std::string &path : paths)
        path += "/" + entry.name;
    return paths;
}

std::string World::reach(const Node &dir, const Mount *mount) const
{
    if (mount && &dir == mount->root)
        return reach(*mount->point);
    if (!dir.self)
        return mount ? "" : &dir == tree_ ? "tree" : "outer";
    const std::string above = reach(*dir.self->dir, mount);
    return above.empty() ? "" : above + "/" + dir.self->name;
}

bool World::is_below(const Node &dir, const Node &top) const
{
    const Node *at = &dir;
    while (at != &top && at->self)
        at = at->self->dir;
    return at == &top;
}

std::vector<Node *> World::directories(Node &top) const
{
    std::vector<Node *> all = {&top};
    for (size_t i = 0; i < all.size(); i++)
        for (const auto &[name, entry] : all[i]->entries)
            if (entry->node->kind == 'd' && !entry->node->point)
                all.push_back(entry->node);
    return all;
}

size_t World::depth(const Node &dir) const { return dir.self ? depth(*dir.self->dir) + 1 : 0; }

size_t World::height(const Node &node) const
{
    size_t most = 0;
    for (const auto &[name, entry] : node.entries)
        most = std::max(most, name.size() + 1 + height(*entry->node));
    return most;
}

}  // namespace model
