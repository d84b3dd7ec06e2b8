#include "ledger.h"

namespace model
{

std::string Ledger::describe(const Key &key) const
{
    return key.second.second + " " + key.first + " by " + std::to_string(key.second.first) +
           (were_.count(key.first) ? "" : " (a path that never was)");
}

void Ledger::count()
{
    due_.clear();
    came_.clear();
    first_.clear();
    found_.clear();
    for (const Happening &what : happened_) {
        due_[{what.path, {pid_of(what), what.kind}}]++;
        were_.insert(what.path);
    }
    for (size_t i = 0; i < reported_.size(); i++)
        for (const std::string &kind : reported_[i].kinds) {
            const Key key = {reported_[i].path, {reported_[i].pid, kind}};
            came_[key]++;
            first_.try_emplace(key, i);
            if (reported_[i].found)
                found_.insert(key);
        }
}

void Ledger::compare(int round, Complaints &out) const
{
    for (const auto &[key, times] : came_) {
        const auto due = due_.find(key);
        if (times > (due == due_.end() ? 0 : due->second) && !may_report(key, found_.count(key), round))
            out.push_back((due == due_.end() ? "did not happen: " : "too often: ") + describe(key));
    }
    std::set<Key> missed;
    for (const Happening &what : happened_) {
        const Key key = {what.path, {pid_of(what), what.kind}};
        if (!came_.count(key) && !may_miss(what, round) && missed.insert(key).second)
            out.push_back("missing: " + describe(key));
    }
}

/* Records only ever move to the front, into earlier ones of their path and process. So the first thing that a process
 * did to a path comes behind all that others did to that path before, as far as these are told apart from later ones.
 */
void Ledger::check_order_of(const std::vector<const Happening *> &all, Complaints &out) const
{
    std::set<pid_t> begun;
    for (size_t i = 0; i < all.size(); i++) {
        const Key later = {all[i]->path, {pid_of(*all[i]), all[i]->kind}};
        if (!begun.insert(later.second.first).second || !first_.count(later))
            continue;
        for (size_t k = 0; k < i; k++) {
            const Key earlier = {all[k]->path, {pid_of(*all[k]), all[k]->kind}};
            const auto at = first_.find(earlier);
            if (due_.at(earlier) == 1 && at != first_.end() && at->second > first_.at(later))
                out.push_back("wrong order: " + describe(later) + " before " + earlier.second.second);
        }
    }
}

void Ledger::check_order(Complaints &out) const
{
    std::map<std::string, std::vector<const Happening *>> by_path;
    for (const Happening &what : happened_)
        by_path[what.path].push_back(&what);
    for (const auto &[path, all] : by_path)
        check_order_of(all, out);
}

Complaints Ledger::settle(int round)
{
    Complaints out;
    count();
    compare(round, out);
    if (keeps_order())
        check_order(out);
    records_ += reported_.size();
    happened_.clear();
    outside_.clear();
    reported_.clear();
    were_before_ = std::move(were_);
    were_.clear();
    return out;
}

}  // namespace model
