/*
 * world.h: what a file system's directories hold, as the simplest thing that can say by which paths an entry is seen.
 * Nothing here touches a disk.
 */
#ifndef MODEL_WORLD_H
#define MODEL_WORLD_H

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace model
{

struct Node;

/* A name in a directory. An open file keeps its entry: renamed it has the new name, removed it keeps the last one. */
struct Entry {
    Node *dir;
    std::string name;
    Node *node;
    bool gone = false;
};

struct Node {
    char kind;             /* d, f (file), s (symbolic link), p (pipe) */
    Entry *self = nullptr; /* a directory's name; null: one of the two tops */
    std::map<std::string, Entry *> entries = {};
    bool pinned = false; /* never renamed, never removed */
    bool kept = false;   /* mounted somewhere: never removed */
    bool point = false;  /* kept empty, to be mounted on */
    int moved = -1;      /* the round in which the node was last made, renamed or removed */
};

/* A directory shown a second time at another directory, which it covers. */
struct Mount {
    Node *point, *root;
};

/* Paths are relative to the ground that holds the two tops: "tree", the watched one, and "outer". */
class World
{
public:
    World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    Node &tree() { return *tree_; }
    const Node &tree() const { return *tree_; }
    Node &outer() { return *outer_; }
    int round = 0;

    Entry *add(Node &dir, const std::string &name, char kind);
    Entry *link(Node &node, Node &dir, const std::string &name);
    void remove(Entry &entry);
    void move(Entry &entry, Node &dir, const std::string &name); /* what has the name is replaced */
    void exchange(Entry &one, Entry &other);
    void mount(Node &point, Node &root);
    void unmount(const Node &point);
    const std::vector<Mount> &mounts() const { return mounts_; }

    /* All paths below the watched top, by every way. */
    std::vector<std::string> seen(const Node &dir) const;
    std::vector<std::string> seen(const Entry &entry) const;
    /* The path that no mount is part of, and the one by a mount; empty: there is none. */
    std::string reach(const Node &dir) const { return reach(dir, nullptr); }
    std::string reach(const Node &dir, const Mount *mount) const;
    bool is_below(const Node &dir, const Node &top) const; /* itself included */
    /* Directories below (and with) `top`, mount points left out. */
    std::vector<Node *> directories(Node &top) const;
    size_t depth(const Node &dir) const;
    size_t height(const Node &node) const; /* bytes of the longest path below */

private:
    Entry *enter(Node &dir, const std::string &name, Node &node);

    std::deque<Entry> entries_;
    std::deque<Node> nodes_;
    std::vector<Mount> mounts_;
    Node *tree_, *outer_;
};

}  // namespace model

#endif
