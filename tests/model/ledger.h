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

/* The kernel joins a record into an earlier one that waits when directory, name, object and process are the same, and
 * whether it is a rename. */
struct Identity {
    const Node *dir, *node;
    std::string name;
    bool rename;
    pid_t pid;
    auto operator<=>(const Identity &) const = default;
};

/* Kinds by the names of the JSON records. */
struct Happening {
    std::string path, kind;
    pid_t pid;
    bool outside = false;    /* of the watched tree: nothing is due */
    bool truncation = false; /* by path or descriptor, not by writing */
    bool gone = false;       /* of an open file whose name was removed */
    bool may_miss = false;   /* on every source */
    bool itself = false;     /* to a directory itself: known by its own handle, not by its parent's */
    /* The entry's node and the directories above it, and the name of each. */
    std::vector<const Node *> way = {};
    std::vector<std::string> names = {};
    std::vector<std::string> same_object = {}; /* all paths of the entry, by mounts too */
    Identity identity = {};
};

struct Report {
    std::string path;
    pid_t pid;
    std::set<std::string> kinds;
    bool found; /* a creation that was not seen itself */
};

using Complaints = std::vector<std::string>;

/*
 * Each thing that happened is to be reported by each of its paths at that moment, with its process. A path may come
 * with a kind less often than that happened, since records of one path and process are joined, and never more often.
 * What the kernel's joining hides, nobody can know:
 *
 * 1. What was joined into an earlier record comes by the path of that record's moment; the directory may have been
 * renamed since.
 * 2. When a directory was renamed in the same way by the same process twice, the second time is not seen, nor when it
 * was. What happens below it in this round may come by any place that the directory had in this round, and is not
 * reported when one of these is outside.
 * 3. Whether that was so can be known of no directory that came back to a place that it had before in this round. What
 * happens below may be a loss instead, of which each record is counted.
 */
class Ledger
{
public:
    explicit Ledger(bool small_table = false) : small_table_(small_table) {}
    virtual ~Ledger() = default;
    void happened(const Happening &what) { happened_.push_back(what); }
    void renamed(const Identity &from, const Identity &to);
    void replaced(const Node &dir) { moves_.lossy.insert(&dir); }
    void removed(const Node &dir)
    {
        if (small_table_)
            moves_.lossy.insert(&dir);
    }
    /* A directory has, or had, this path in this round; empty: it was outside. */
    void was_at(const Node &dir, const std::string &path) { moves_.places[&dir].insert(path); }
    void was(const std::string &path) { were_.insert(path); } /* something had this path in this round */
    void reported(const Report &what) { reported_.push_back(what); }
    /* Whether more is missing than the losses excuse: these are reported a little later than events. */
    bool awaits_loss();
    /* What is wrong with the round that ends here. */
    Complaints settle(int round);
    /* A loss was reported; whether losses of that kind may be. There are never more of them than things in doubt. */
    virtual bool may_lose(const std::string &source, size_t count);
    size_t records() const { return records_; }

protected:
    using Key = std::pair<std::string, std::pair<pid_t, std::string>>; /* path, process, kind */
    virtual pid_t pid_of(const Happening &what) const { return what.pid; }
    virtual bool may_miss(const Happening &, int) const { return false; }
    virtual bool may_report(const Key &, bool, int) const { return false; }
    virtual bool is_exact() const { return true; }
    virtual int most_reports(const Happening &) const { return 1; }
    bool came(const Key &key) const { return came_.count(key) > 0; }

    std::vector<Happening> happened_;
    std::vector<Report> reported_;
    std::set<std::string> were_, were_before_;
    std::set<std::pair<const Node *, std::string>> renamed_to_; /* names that were given to nodes in this round */

private:
    struct Due {
        std::set<std::string> paths; /* by which it may come; "": not at all */
        bool in_doubt = false;       /* a loss may stand for it */
    };
    Key key_of(const Happening &what, const std::string &path) const { return {path, {pid_of(what), what.kind}}; }
    void expect();
    bool is_doubtful(const Happening &what) const;
    void add_doubtful(const Happening &what, std::set<std::string> &paths) const;
    void count();
    bool is_missing(const Happening &what, const Due &due) const;
    size_t missing_in_doubt() const;
    void compare(int round, Complaints &out) const;
    void check_order(Complaints &out) const;
    void check_order_of(const std::vector<const Happening *> &all, Complaints &out) const;
    std::string describe(const Key &key) const;

    /* Of directories, in this round. */
    struct Moves {
        std::map<const Node *, std::set<std::string>> places; /* paths; "": outside */
        std::map<std::pair<Identity, Identity>, int> renames;
        std::set<std::pair<const Node *, std::pair<const Node *, std::string>>> left; /* places that they left */
        std::set<const Node *> repeated, lossy; /* may be elsewhere; a loss may stand for what happens below */
    } moves_;
    struct Losses {
        size_t now = 0;                      /* of this round */
        size_t all = 0, things_in_doubt = 0; /* of all rounds */
    } losses_;
    const bool small_table_;
    std::vector<Due> due_;
    std::map<Key, int> most_, came_;
    std::map<Key, size_t> first_; /* the first record */
    std::set<Key> found_;
    std::set<std::pair<std::string, pid_t>> blurred_; /* what may be another path's is there too */
    size_t records_ = 0;
};

}  // namespace model

#endif
