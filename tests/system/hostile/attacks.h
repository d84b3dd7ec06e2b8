/*
 * attacks.h: what is done to the monitor. Each attack has a directory of its own below each part of the ground.
 */
#ifndef HOSTILE_ATTACKS_H
#define HOSTILE_ATTACKS_H

#include <memory>
#include <string>
#include <vector>

#include "ground.h"

namespace hostile
{

enum class Who { kRoot, kStranger, kStrangerInNamespace };

class Attack
{
public:
    explicit Attack(Who by) : who(by) {}
    virtual ~Attack() = default;
    Attack(const Attack &) = delete;
    Attack &operator=(const Attack &) = delete;

    /* Makes what is there when the watches are placed. As root, in the process that is attacked. */
    virtual void prepare(Ground &) {}
    /* In the attacker, as whom the attack is done: before the first round, each round, and when a rest begins. When
     * a rest begins the ground has the shape that it had before the first round, give or take what lies in out/. */
    virtual void begin(Ground &) {}
    virtual void round(Ground &, uint64_t number) = 0;
    virtual void rest(Ground &) {}

    const Who who;
    int burst = 50;                      /* rounds between two fences */
    std::vector<std::string> own_dirs;   /* below tree/NAME: directories that have a watch of their own */
    bool has_files = false;              /* files/NAME holds two watched files, "file" and "single" */
    std::vector<std::string> never_told; /* below tree/NAME: files that nobody opens, so that no event is true */
    bool waits = false;                  /* commands wait for paths below wait/NAME */
};

struct AttackRow {
    const char *name, *what;
    std::unique_ptr<Attack> (*make)();
};

const std::vector<AttackRow> &attack_table();

/* ---- each file's ---- */
std::unique_ptr<Attack> other_mounts(); /* attack_names.cpp */
std::unique_ptr<Attack> strangers_alias();
std::unique_ptr<Attack> mounts_over();
std::unique_ptr<Attack> leases();
std::unique_ptr<Attack> inotify_users();
std::unique_ptr<Attack> links_for_dirs(); /* attack_trees.cpp */
std::unique_ptr<Attack> exchanges();
std::unique_ptr<Attack> deep_trees();
std::unique_ptr<Attack> pairs();
std::unique_ptr<Attack> moved_away();
std::unique_ptr<Attack> ancestors();

}  // namespace hostile

#endif
