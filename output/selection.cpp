#include "selection.h"

#include <algorithm>

#include "agent/below.h"

namespace output
{

bool Selection::set_patterns(const OutputOptions &options, std::string &error)
{
    using Letters = PathFilter::Case;
    const auto add = [&](const char *option, const std::vector<std::string> &patterns, auto way, Letters letters) {
        std::string reason;
        for (const std::string &pattern : patterns)
            if (!(filter_.*way)(pattern, reason, letters))
                error = std::string(option) + " '" + pattern + "' is no regular expression: " + reason;
    };
    add("--include", options.include, &PathFilter::include, Letters::kExact);
    add("--exclude", options.exclude, &PathFilter::exclude, Letters::kExact);
    add("--iinclude", options.include_any_case, &PathFilter::include, Letters::kAnyCase);
    add("--iexclude", options.exclude_any_case, &PathFilter::exclude, Letters::kAnyCase);
    return error.empty();
}

void Selection::set_plan(const agent::Plan &plan)
{
    for (const agent::PlannedInstance &instance : plan.instances)
        kinds_.push_back(instance.shown);
    for (const agent::Root &root : plan.roots)
        roots_.push_back(root.path);
}

void Selection::add_root(const std::string &path)
{
    if (std::find(roots_.begin(), roots_.end(), path) == roots_.end())
        roots_.push_back(path);
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
    return shown ? kinds : 0;
}

}  // namespace output
