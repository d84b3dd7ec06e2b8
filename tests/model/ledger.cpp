#include "ledger.h"

#include <algorithm>

namespace model
{

std::string Ledger::describe(const Key &key) const
{
    return key.second.second + " " + key.first + " by " + std::to_string(key.second.first) +
           (were_.count(key.first) ? "" : " (a path that never was)");
}

void Ledger::renamed(const Identity &from, const Identity &to)
{
    renamed_to_.insert({to.node, to.name});
    if (++moves_.renames[{from, to}] > 1)
        moves_.repeated.insert(from.node);
    moves_.left.insert({from.node, {from.dir, from.name}});
    if (moves_.left.count({to.node, {to.dir, to.name}}))
        moves_.lossy.insert(to.node);
}

bool Ledger::may_lose(const std::string &source, size_t count)
{
    if (source != "table")
        return false;
    losses_.now += count;
    losses_.all += count;
    return true;
}

/* The paths that it would have if a directory above were where that was at another moment of the round. */
void Ledger::add_doubtful(const Happening &what, std::set<std::string> &paths) const
{
    std::string below;
    for (size_t i = 0; i < what.way.size(); i++) {
        if ((i > 0 || what.itself) && moves_.repeated.count(what.way[i]))
            for (const std::string &place : moves_.places.at(what.way[i]))
                paths.insert(place.empty() ? "" : place + below);
        below = "/" + what.names[i] + below;
    }
}

bool Ledger::is_doubtful(const Happening &what) const
{
    return std::any_of(what.way.begin() + (what.itself ? 0 : 1), what.way.end(),
                       [&](const Node *dir) { return moves_.lossy.count(dir) > 0; });
}

void Ledger::expect()
{
    std::map<Identity, Due> joint;
    due_.clear();
    most_.clear();
    blurred_.clear();
    for (const Happening &what : happened_) {
        Due &due = joint[what.identity];
        due.paths.insert(what.outside ? "" : what.path);
        add_doubtful(what, due.paths);
        due.in_doubt |= is_doubtful(what);
        due_.push_back(due);
        for (const std::string &path : due.paths) {
            most_[key_of(what, path)] += most_reports(what);
            if (path != what.path)
                blurred_.insert({path, pid_of(what)});
        }
        were_.insert(what.path);
    }
}

void Ledger::count()
{
    came_.clear();
    first_.clear();
    found_.clear();
    for (size_t i = 0; i < reported_.size(); i++)
        for (const std::string &kind : reported_[i].kinds) {
            const Key key = {reported_[i].path, {reported_[i].pid, kind}};
            came_[key]++;
            first_.try_emplace(key, i);
            if (reported_[i].found)
                found_.insert(key);
        }
}

bool Ledger::is_missing(const Happening &what, const Due &due) const
{
    return !what.may_miss && !due.paths.count("") &&
           std::none_of(due.paths.begin(), due.paths.end(),
                        [&](const std::string &path) { return came(key_of(what, path)); });
}

/* Records: what was joined into one, and both halves of a rename. */
size_t Ledger::missing_in_doubt() const
{
    std::set<Identity> others, from, to;
    for (size_t i = 0; i < happened_.size(); i++) {
        const Happening &what = happened_[i];
        if (due_[i].in_doubt && is_missing(what, due_[i]))
            (what.kind == "moved_from" ? from : what.kind == "moved_to" ? to : others).insert(what.identity);
    }
    return others.size() + std::max(from.size(), to.size());
}

void Ledger::compare(int round, Complaints &out) const
{
    for (const auto &[key, times] : came_) {
        const auto most = most_.find(key);
        if (times > (most == most_.end() ? 0 : most->second) && !may_report(key, found_.count(key), round))
            out.push_back((most == most_.end() ? "did not happen: " : "too often: ") + describe(key));
    }
    std::set<Key> missed;
    const bool excused = missing_in_doubt() <= losses_.now;
    for (size_t i = 0; i < happened_.size(); i++) {
        const Happening &what = happened_[i];
        if (!(due_[i].in_doubt && excused) && is_missing(what, due_[i]) && !may_miss(what, round) &&
            missed.insert(key_of(what, what.path)).second)
            out.push_back("missing: " + describe(key_of(what, what.path)));
    }
}

/* Records only ever move to the front, into earlier ones of their path and process. So the first thing that a process
 * did to a path comes behind all that others did to that path before, as far as these are told apart from later ones.
 */
void Ledger::check_order_of(const std::vector<const Happening *> &all, Complaints &out) const
{
    std::set<pid_t> begun;
    for (size_t i = 0; i < all.size(); i++) {
        const Key later = key_of(*all[i], all[i]->path);
        const pid_t pid = later.second.first;
        if (!begun.insert(pid).second || !first_.count(later) || blurred_.count({later.first, pid}))
            continue;
        for (size_t k = 0; k < i; k++) {
            const Key earlier = key_of(*all[k], all[k]->path);
            const auto at = first_.find(earlier);
            if (most_.at(earlier) == 1 && at != first_.end() && at->second > first_.at(later))
                out.push_back("wrong order: " + describe(later) + " before " + earlier.second.second);
        }
    }
}

void Ledger::check_order(Complaints &out) const
{
    std::map<std::string, std::vector<const Happening *>> by_path;
    for (const Happening &what : happened_)
        if (!what.outside)
            by_path[what.path].push_back(&what);
    for (const auto &[path, all] : by_path)
        check_order_of(all, out);
}

bool Ledger::awaits_loss()
{
    expect();
    count();
    return is_exact() && missing_in_doubt() > losses_.now;
}

Complaints Ledger::settle(int round)
{
    Complaints out;
    expect();
    count();
    compare(round, out);
    if (is_exact())
        check_order(out);
    losses_.things_in_doubt +=
        static_cast<size_t>(std::count_if(due_.begin(), due_.end(), [](const Due &due) { return due.in_doubt; }));
    if (losses_.all > losses_.things_in_doubt)
        out.push_back(std::to_string(losses_.all) + " losses, and " + std::to_string(losses_.things_in_doubt) +
                      " things in doubt");
    records_ += reported_.size();
    happened_.clear();
    reported_.clear();
    moves_ = {};
    renamed_to_.clear();
    losses_.now = 0;
    were_before_ = std::move(were_);
    were_.clear();
    return out;
}

}  // namespace model
