/*
 * ledger.h: what happened beside what was reported, settled round by round.
 */
#ifndef MODEL_LEDGER_H
#define MODEL_LEDGER_H

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "world.h"

namespace model
{

/* Kinds by the names of the JSON records. */
struct Happening {
    std::string path, kind;
    pid_t pid;
    bool truncation = false;                   /* by path or descriptor, not by writing */
    bool gone = false;                         /* of an open file whose name was removed */
    std::vector<const Node *> way = {};        /* the entry's node and the directories above it */
    std::vector<std::string> same_object = {}; /* the other ways to the same entry */
};

struct Report {
    std::string path;
    pid_t pid;
    std::set<std::string> kinds;
    bool found; /* a creation that was not seen itself */
};

using Complaints = std::vector<std::string>;

/* Each thing that happened is to be reported by each of its paths at that moment, with its process; a path may come
 * with a kind less often than that happened, since records of one path and process are joined, and never more often. */
class Ledger
{
public:
    virtual ~Ledger() = default;
    void happened(const Happening &what) { happened_.push_back(what); }
    /* Outside of the watched tree: nothing is due. */
    void happened_outside(const Happening &what) { outside_.push_back(what); }
    void was(const std::string &path) { were_.insert(path); } /* a path that something had in this round */
    void reported(const Report &what) { reported_.push_back(what); }
    /* What is wrong with the round that ends here. */
    Complaints settle(int round);
    virtual bool may_lose(const std::string &) const { return false; }
    size_t records() const { return records_; }

protected:
    using Key = std::pair<std::string, std::pair<pid_t, std::string>>; /* path, process, kind */
    virtual pid_t pid_of(const Happening &what) const { return what.pid; }
    virtual bool may_miss(const Happening &, int) const { return false; }
    virtual bool may_report(const Key &, bool, int) const { return false; }
    virtual bool keeps_order() const { return true; }
    bool came(const Key &key) const { return came_.count(key) > 0; }

    std::vector<Happening> happened_, outside_;
    std::vector<Report> reported_;
    std::set<std::string> were_, were_before_;

private:
    void count();
    void compare(int round, Complaints &out) const;
    void check_order(Complaints &out) const;
    void check_order_of(const std::vector<const Happening *> &all, Complaints &out) const;
    std::string describe(const Key &key) const;

    std::map<Key, int> due_, came_;
    std::map<Key, size_t> first_; /* the first record */
    std::set<Key> found_;
    size_t records_ = 0;
};

}  // namespace model

#endif
