/*
 * script.h: operations, done in the world, noted in the ledger, and written down as an operator's steps.
 */
#ifndef MODEL_SCRIPT_H
#define MODEL_SCRIPT_H

#include <sys/types.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "ledger.h"
#include "operators.h"
#include "world.h"

namespace model
{

/* Numbers of one seed, the same on every machine. */
class Dice
{
public:
    explicit Dice(unsigned long seed) : engine_(seed) {}
    size_t below(size_t limit) { return limit ? engine_() % limit : 0; }
    bool one_in(size_t n) { return below(n) == 0; }
    template <typename List>
    auto &pick(List &list)
    {
        return list[below(list.size())];
    }

private:
    std::mt19937_64 engine_;
};

class Script
{
public:
    Script(World &world, Ledger &ledger, Dice &dice, const std::string &ground)
        : world_(world), ledger_(ledger), dice_(dice), ground_(ground)
    {
    }
    void by(size_t number, pid_t pid);
    std::vector<Step> take(); /* of the current operator, since the last time */

    /* Operations. The caller sees to it that they are possible. */
    Entry *make(Node &dir, const std::string &name, Verb verb);
    Entry *link(Entry &file, Node &dir, const std::string &name);
    void remove(Entry &entry);
    void move(Entry &entry, Node &dir, const std::string &name);
    void exchange(Entry &one, Entry &other);
    void write(Entry &file, Verb verb); /* kAppend, kTruncate, kOpenTruncate */
    void change_mode(Entry &entry);
    void hold(Entry &file);
    void write_held();
    void release();
    Entry *held() const { return held_[number_]; }
    bool is_held(const Node &dir) const; /* an open file has, or had, its name there */

    size_t operations() const { return operations_; }
    /* Notes all paths that there are. */
    void note_paths();

private:
    void step(Verb verb, const std::string &one, const std::string &other = "");
    void happened(const std::string &kind, const Entry &entry, bool truncation = false, bool may_miss = false);
    void note_paths_below(Node &node);
    void note_place(const Node &dir);
    /* By which mount an operation on these directories goes; null: by none. */
    const Mount *choose_way(const Node &one, const Node &other);
    std::string reach(const Entry &entry, const Mount *way) const;

    World &world_;
    Ledger &ledger_;
    Dice &dice_;
    std::string ground_;
    std::array<Entry *, 4> held_ = {};
    size_t number_ = 0, operations_ = 0;
    pid_t pid_ = 0;
    std::vector<Step> steps_;
};

}  // namespace model

#endif
