/*
 * player.h: what is done next: single operations, and sequences of them that are known to be hard to follow.
 */
#ifndef MODEL_PLAYER_H
#define MODEL_PLAYER_H

#include <functional>
#include <string>
#include <vector>

#include "script.h"

namespace model
{

class Player
{
public:
    Player(World &world, Script &script, Dice &dice) : world_(world), script_(script), dice_(dice) {}
    /* Only what is below one of these is touched from now on. */
    void confine(std::vector<Node *> tops) { tops_ = std::move(tops); }
    void keep_directories(bool keep) { calm_ = keep; } /* no directory is made, renamed or removed */
    void act(); /* one operation or sequence; nothing, when chance finds no place for it */

private:
    using Filter = std::function<bool(const Entry &)>;
    struct Habit {
        void (Player::*act)();
        int weight;
        bool calm;
    };
    static const std::vector<Habit> &habits();

    Node *dir();
    Entry *entry(const Filter &filter); /* null: chance found none */
    Entry *file();
    Entry *movable_dir();
    std::string name();
    std::string free_name(const Node &dir);
    bool fits(const Node &dir, const std::string &name, const Node *moved = nullptr) const;
    bool may_remove(const Entry &entry) const;
    bool may_replace(const Entry &entry, const Node &dir, const std::string &name) const;
    bool move_if_fit(Entry &entry, Node &dir, const std::string &name);
    Entry *make_if_fit(Node &dir, Verb verb);
    bool is_crowded();

    void make_something();
    void make_directory();
    void write_something();
    void change_mode();
    void link_file();
    void remove_something();
    void rename_file();
    void rename_directory();
    void exchange();
    void exchange_directories();
    void ping_pong();
    void make_chain();
    void remove_tree();
    void remove_below(Node &dir);
    void make_and_rename();
    void save_file();
    void hold_file();
    void rename_inside_each_other();
    void leave_and_return();

    World &world_;
    Script &script_;
    Dice &dice_;
    std::vector<Node *> tops_;
    bool calm_ = false;
};

}  // namespace model

#endif
