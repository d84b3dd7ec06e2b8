#include "marks_ledger.h"

#include <algorithm>

namespace model
{

namespace
{

bool is_of_contents(const std::string &kind) { return kind == "modify" || kind == "close_write"; }

std::string name_of(const std::string &path) { return path.substr(path.rfind('/')); }

/* Whether the entry, or a directory above, was made, renamed or removed a moment ago. */
bool is_unsettled(const Happening &what, int round)
{
    const auto from = what.way.begin() + (is_of_contents(what.kind) || what.way[0]->kind == 'd' ? 0 : 1);
    return std::any_of(from, what.way.end(), [&](const Node *node) { return node->moved >= round - 1; });
}

}  // namespace

pid_t MarksLedger::pid_of(const Happening &what) const { return is_of_contents(what.kind) ? what.pid : 0; }

bool MarksLedger::may_miss(const Happening &what, int round) const
{
    return what.truncation || what.gone || is_unsettled(what, round) ||
           std::any_of(what.same_object.begin(), what.same_object.end(), [&](const std::string &path) {
               return came({path, {pid_of(what), what.kind}});
           });
}

bool MarksLedger::may_report(const Key &key, bool found, int round) const
{
    const auto &[path, what_and_who] = key;
    if (found)
        return were_.count(path) || were_before_.count(path);
    const auto explains = [&, who = what_and_who](const Happening &what) {
        return what.kind == who.second && pid_of(what) == who.first && is_unsettled(what, round) &&
               (were_.count(path) || name_of(what.path) == name_of(path) ||
                renamed_to_.count({what.way[0], name_of(path).substr(1)}));
    };
    return std::any_of(happened_.begin(), happened_.end(), explains);
}

int MarksLedger::most_reports(const Happening &what) const
{
    return what.kind == "attrib" && what.way[0]->kind == 'd' ? 2 : 1;
}

bool MarksLedger::may_lose(const std::string &source, size_t) { return source == "path" || source == "watches"; }

}  // namespace model
