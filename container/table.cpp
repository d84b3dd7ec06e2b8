#include "table.h"

#include <utility>

namespace container
{

Table::Answer Table::find(uint64_t mount, uint64_t now_ms)
{
    const Advice aged = is_over(now_ms, kAge) ? Advice::kRefresh : Advice::kNone;
    const auto row = census_.mounts.find(mount);
    if (row != census_.mounts.end() && row->second == Census::kHost)
        return {nullptr, aged, false};
    if (row != census_.mounts.end() && !ended_[row->second])
        return {&census_.containers[row->second], aged, false};
    if (unknown_.count(mount))
        return {nullptr, aged, false};
    return {nullptr, may_refresh(now_ms) ? Advice::kRefresh : Advice::kNone, true};
}

void Table::replace(Census &census)
{
    std::vector<bool> ended(census.containers.size()); /* nothing fails behind this */
    std::swap(census_, census);
    ended_.swap(ended);
    unknown_.clear();
}

// Somebody's numbers may be without end.
void Table::give_up(uint64_t mount)
{
    if (unknown_.size() < kMaxUnknown)
        unknown_.insert(mount);
}

void Table::end(std::string_view id, int pid)
{
    for (size_t i = 0; i < census_.containers.size(); i++)
        if (census_.containers[i].pid == pid && census_.containers[i].id == id)
            ended_[i] = true;
}

const Found *Table::container(std::string_view id) const
{
    for (size_t i = 0; i < census_.containers.size(); i++)
        if (census_.containers[i].id == id && !ended_[i])
            return &census_.containers[i];
    return nullptr;
}

}  // namespace container
