#include "mount_guard.h"

#include <algorithm>
#include <iterator>

#include "below.h"

namespace agent
{

namespace
{

bool lies_in_a_tree(const std::string &point, const std::vector<Root> &roots)
{
    return std::any_of(roots.begin(), roots.end(), [&](const Root &root) {
        return !root.watched.empty() && point != root.watched && is_below(root.watched, point);
    });
}

}  // namespace

void MountGuard::look(const std::vector<Mount> &mounts, const std::vector<Root> &roots)
{
    std::set<std::pair<std::string, uint64_t>> now, changes;
    for (const Mount &mount : mounts)
        now.emplace(mount.point, mount.id);
    std::set_symmetric_difference(known_.begin(), known_.end(), now.begin(), now.end(),
                                  std::inserter(changes, changes.end()));
    known_ = std::move(now);
    if (!std::exchange(started_, true))
        return;
    std::set<std::string> points;
    for (const auto &[point, id] : changes)
        if (lies_in_a_tree(point, roots))
            points.insert(point);
    for (const std::string &point : points)
        changed_(point);
}

}  // namespace agent
