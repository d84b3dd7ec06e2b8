#include "selection.h"

#include <algorithm>

#include "agent/below.h"
#include "agent/deleted_path.h"

namespace output
{

bool Selection::set_filter(const FilterOptions &options, std::string &error)
{
    std::string key;
    if (filter_.prepare(options, nullptr, key, error))
        return true;
    std::replace(key.begin(), key.end(), '_', '-');
    error = "--" + key + " " + error;
    return false;
}

void Selection::set_plan(const agent::Plan &plan)
{
    for (const agent::PlannedInstance &instance : plan.instances)
        kinds_.push_back(instance.shown);
    for (const agent::Root &root : plan.roots)
        roots_.push_back(root.path);
    spared_ = plan.spared;
}

void Selection::add_root(const std::string &path)
{
    if (std::find(roots_.begin(), roots_.end(), path) == roots_.end())
        roots_.push_back(path);
}

// Watches of mounts, and of the whole system, see everything; what happens to the name itself is shown.
bool Selection::is_spared(std::string_view path) const
{
    return std::any_of(spared_.begin(), spared_.end(), [&](const std::string &spared) {
        return path.size() != spared.size() && agent::is_below(spared, path);
    });
}

// New directories are followed however deep they are; the limit is kept here.
bool Selection::is_within_depth(std::string_view path) const
{
    if (max_depth_ == 0)
        return true;
    return std::any_of(roots_.begin(), roots_.end(), [&](const std::string &root) {
        const int depth = agent::directory_depth(root, path);
        return depth >= 0 && static_cast<uint32_t>(depth) <= max_depth_;
    });
}

uint32_t Selection::shown_kinds(const agent::Event &event) const
{
    const uint32_t kinds = event.mask & kinds_[event.source];
    const bool shown = kinds && (shows(event.path) || (!event.from.empty() && shows(event.from)));
    return shown && filter_.shows_cause(event) ? kinds : 0;
}

bool Selection::narrow(agent::Event &event, std::string &storage) const
{
    agent::take_deleted(event, storage);
    event.mask = shown_kinds(event);
    return event.mask != 0;
}

}  // namespace output
