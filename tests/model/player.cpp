#include "player.h"

#include <algorithm>
#include <numeric>

namespace model
{

namespace
{

constexpr size_t kLongestPath = 800, kDeepest = 40, kMostEntries = 350, kTries = 8;

bool is_dir(const Entry &entry) { return entry.node->kind == 'd'; }
bool is_file(const Entry &entry) { return entry.node->kind == 'f'; }

}  // namespace

/* ---- what there is ---- */

Node *Player::dir()
{
    const std::vector<Node *> all = world_.directories(*dice_.pick(tops_));
    return all[dice_.below(all.size())];
}

Entry *Player::entry(const Filter &filter)
{
    for (size_t tries = 0; tries < kTries; tries++) {
        std::vector<Entry *> found;
        for (const auto &[name, entry] : dir()->entries)
            if (filter(*entry) && !entry->node->pinned)
                found.push_back(entry);
        if (!found.empty())
            return dice_.pick(found);
    }
    return nullptr;
}

Entry *Player::file() { return entry(is_file); }

Entry *Player::movable_dir() { return entry(is_dir); }

/* Few names, so that they are used again and again; some odd ones; now and then the longest. */
std::string Player::name()
{
    static const std::vector<std::string> odd = {"new\nline", "a b",  "\"q\"",        "back\\slash",  "\xff\xfe",
                                                 "*",         "\xc3", "\xe2\x80\xae", "\xc3\xa4\x01", "..."};
    switch (dice_.below(20)) {
        case 0:
            return odd[dice_.below(odd.size())];
        case 1:
            return dice_.one_in(8) ? std::string(255, static_cast<char>('k' + dice_.below(3))) : "k";
        case 2:
        case 3:
        case 4:
            return "n" + std::to_string(dice_.below(30));
        default:
            return std::string(1, static_cast<char>('a' + dice_.below(6)));
    }
}

std::string Player::free_name(const Node &dir)
{
    std::string found = name();
    while (dir.entries.count(found))
        found = name() + std::to_string(dice_.below(100));
    return found;
}

bool Player::fits(const Node &dir, const std::string &name, const Node *moved) const
{
    const size_t below = moved ? world_.height(*moved) : 0;
    return name.size() <= 255 && world_.depth(dir) < kDeepest &&
           world_.reach(dir).size() + 1 + name.size() + below < kLongestPath;
}

/* A directory that an open file was in could not be named any more when the file is written. */
bool Player::may_remove(const Entry &entry) const
{
    const Node &node = *entry.node;
    return !node.pinned && !node.kept && (node.kind != 'd' || (node.entries.empty() && !script_.is_held(node)));
}

bool Player::may_replace(const Entry &entry, const Node &dir, const std::string &name) const
{
    const auto there = dir.entries.find(name);
    return there == dir.entries.end() ||
           (is_dir(entry) == is_dir(*there->second) && may_remove(*there->second) && there->second->node != entry.node);
}

bool Player::move_if_fit(Entry &entry, Node &dir, const std::string &name)
{
    if (entry.node->pinned || (is_dir(entry) && world_.is_below(dir, *entry.node)) || !may_replace(entry, dir, name) ||
        !fits(dir, name, entry.node))
        return false;
    script_.move(entry, dir, name);
    return true;
}

Entry *Player::make_if_fit(Node &dir, Verb verb)
{
    const std::string name = free_name(dir);
    return fits(dir, name) ? script_.make(dir, name, verb) : nullptr;
}

bool Player::is_crowded()
{
    size_t count = 0;
    for (Node *top : tops_)
        for (const Node *dir : world_.directories(*top))
            count += dir->entries.size();
    return count > kMostEntries * tops_.size() / 2;
}

/* ---- single operations ---- */

void Player::make_something()
{
    static const std::vector<Verb> verbs = {kMakeFile, kMakeFile, kMakeFile, kMakeNode, kMakeLink, kMakePipe};
    make_if_fit(*dir(), verbs[dice_.below(verbs.size())]);
}

void Player::make_directory() { make_if_fit(*dir(), kMakeDir); }

void Player::write_something()
{
    static const std::vector<Verb> verbs = {kAppend, kAppend, kTruncate, kOpenTruncate};
    if (Entry *found = file())
        script_.write(*found, verbs[dice_.below(verbs.size())]);
}

void Player::change_mode()
{
    if (Entry *found = entry([](const Entry &entry) { return entry.node->kind != 's'; }))
        script_.change_mode(*found);
}

void Player::link_file()
{
    Entry *found = file();
    Node &to = *dir();
    const std::string name = free_name(to);
    if (found && fits(to, name))
        script_.link(*found, to, name);
}

void Player::remove_something()
{
    Entry *found = entry([this](const Entry &entry) { return (!calm_ || !is_dir(entry)) && may_remove(entry); });
    if (found)
        script_.remove(*found);
}

void Player::rename_file()
{
    Entry *found = entry([](const Entry &entry) { return !is_dir(entry); });
    Node &to = *dir();
    if (found)
        move_if_fit(*found, dice_.one_in(2) ? *found->dir : to, name());
}

void Player::rename_directory()
{
    Entry *found = movable_dir();
    Node &to = *dir();
    if (found)
        move_if_fit(*found, dice_.one_in(2) ? *found->dir : to, name());
}

void Player::exchange()
{
    Entry *one = entry([this](const Entry &entry) { return !calm_ || !is_dir(entry); });
    Entry *other = entry([this](const Entry &entry) { return !calm_ || !is_dir(entry); });
    if (!one || !other || one->node == other->node || world_.is_below(*other->dir, *one->node) ||
        world_.is_below(*one->dir, *other->node) || !fits(*one->dir, one->name, other->node) ||
        !fits(*other->dir, other->name, one->node))
        return;
    script_.exchange(*one, *other);
}

/* ---- sequences ---- */

void Player::ping_pong()
{
    Entry *found = movable_dir();
    if (!found)
        return;
    Node &home = *found->dir, &away = dice_.one_in(2) ? home : *dir();
    const std::string here = found->name, there = free_name(away);
    for (size_t turns = 2 + dice_.below(4); turns > 0; turns--) {
        const bool back = found->dir == &away && found->name == there;
        if (!move_if_fit(*found, back ? home : away, back ? here : there))
            return;
        if (dice_.one_in(3))
            make_if_fit(*found->node, kMakeFile);
    }
}

void Player::make_chain()
{
    Node *at = dir();
    for (size_t levels = 2 + dice_.below(4); levels > 0; levels--) {
        const Entry *made = make_if_fit(*at, kMakeDir);
        if (!made)
            return;
        at = made->node;
    }
    make_if_fit(*at, kMakeFile);
}

void Player::remove_below(Node &dir)
{
    const std::map<std::string, Entry *> entries = dir.entries;
    for (const auto &[name, entry] : entries) {
        if (is_dir(*entry) && !entry->node->point)
            remove_below(*entry->node);
        if (may_remove(*entry))
            script_.remove(*entry);
    }
}

void Player::remove_tree()
{
    Entry *found = movable_dir();
    if (!found)
        return;
    remove_below(*found->node);
    if (may_remove(*found))
        script_.remove(*found);
}

/* A directory that is made, filled, renamed, emptied, renamed back and removed: its last record is joined into its
 * first. */
void Player::make_and_rename()
{
    Node &home = *dir();
    Entry *made = make_if_fit(home, kMakeDir);
    if (!made)
        return;
    const std::string here = made->name;
    Entry *inside = make_if_fit(*made->node, kMakeFile);
    move_if_fit(*made, home, free_name(home));
    if (inside)
        script_.remove(*inside);
    if (dice_.one_in(2))
        move_if_fit(*made, home, here);
    if (dice_.one_in(2))
        script_.remove(*made);
}

void Player::save_file()
{
    Entry *found = file();
    if (!found)
        return;
    Node &home = *found->dir;
    const std::string name = found->name;
    if (Entry *fresh = make_if_fit(home, kMakeFile))
        move_if_fit(*fresh, home, name);
}

/* A file that stays open while it is renamed and removed. */
void Player::hold_file()
{
    Entry *held = script_.held();
    if (!held) {
        Entry *found = file();
        if (found)
            script_.hold(*found);
        return;
    }
    const bool ours =
        std::any_of(tops_.begin(), tops_.end(), [&](const Node *top) { return world_.is_below(*held->dir, *top); });
    if (ours && dice_.one_in(3))
        script_.release();
    else if (ours)
        script_.write_held();
}

void Player::rename_inside_each_other()
{
    for (size_t turns = 3 + dice_.below(6); turns > 0; turns--) {
        Entry *one = movable_dir(), *other = movable_dir();
        if (one && other && one != other)
            move_if_fit(*one, *other->node, name());
        if (dice_.one_in(3))
            make_something();
    }
}

void Player::exchange_directories()
{
    Entry *one = movable_dir(), *other = movable_dir();
    if (!one || !other || world_.is_below(*one->node, *other->node) || world_.is_below(*other->node, *one->node))
        return;
    for (size_t turns = 1 + dice_.below(3); turns > 0; turns--) {
        if (!fits(*one->dir, one->name, other->node) || !fits(*other->dir, other->name, one->node))
            return;
        script_.exchange(*one, *other);
        make_if_fit(*one->node, kMakeFile);
    }
}

/* Out of the watched tree, changed there, and in again; with one top only, somewhere else. */
void Player::leave_and_return()
{
    Entry *found = movable_dir();
    if (!found)
        return;
    Node &home = *found->dir, &away = *tops_.back();
    const std::string name = found->name;
    if (!move_if_fit(*found, away, free_name(away)))
        return;
    make_if_fit(*found->node, kMakeFile);
    if (dice_.one_in(2))
        make_if_fit(*found->node, kMakeDir);
    if (dice_.one_in(2) && !world_.is_below(home, *found->node))
        move_if_fit(*found, home, name);
}

const std::vector<Player::Habit> &Player::habits()
{
    static const std::vector<Habit> all = {
        {&Player::make_something, 12, true},
        {&Player::make_directory, 8, false},
        {&Player::write_something, 12, true},
        {&Player::change_mode, 4, true},
        {&Player::link_file, 4, true},
        {&Player::remove_something, 8, true},
        {&Player::rename_file, 6, true},
        {&Player::rename_directory, 6, false},
        {&Player::exchange, 3, true},
        {&Player::exchange_directories, 2, false},
        {&Player::ping_pong, 3, false},
        {&Player::make_chain, 4, false},
        {&Player::remove_tree, 2, false},
        {&Player::make_and_rename, 3, false},
        {&Player::save_file, 4, true},
        {&Player::hold_file, 6, true},
        {&Player::rename_inside_each_other, 2, false},
        {&Player::leave_and_return, 3, false},
    };
    return all;
}

void Player::act()
{
    if (is_crowded()) {
        if (calm_)
            remove_something();
        else
            remove_tree();
        return;
    }
    const std::vector<Habit> &all = habits();
    size_t at = dice_.below(static_cast<size_t>(
        std::accumulate(all.begin(), all.end(), 0, [](int sum, const Habit &habit) { return sum + habit.weight; })));
    for (const Habit &habit : all) {
        if (at < static_cast<size_t>(habit.weight)) {
            if (habit.calm || !calm_)
                (this->*habit.act)();
            return;
        }
        at -= static_cast<size_t>(habit.weight);
    }
}

}  // namespace model
