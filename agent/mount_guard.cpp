#include "mount_guard.h"

#include <algorithm>
#include <iterator>
#include <map>

#include "below.h"

namespace agent
{

namespace
{

// What is seen at the path: the latest of the deepest mounts there.
const Mount *mount_of(const std::vector<Mount> &mounts, const std::string &path)
{
    const Mount *found = nullptr;
    for (const Mount &mount : mounts)
        if (is_below(mount.point, path) && (!found || mount.point.size() >= found->point.size()))
            found = &mount;
    return found;
}

bool has_marked_device(const std::vector<Mount> &mounts, const Root &root, const std::string &point)
{
    const Mount *own = mount_of(mounts, root.watched), *there = mount_of(mounts, point);
    return root.served && own && there && own->device == there->device;
}

// Whether a tree reaches there in which something may have been missed.
bool is_missed(const std::vector<Mount> &mounts, const std::vector<Root> &roots, const std::string &point, bool came)
{
    return std::any_of(roots.begin(), roots.end(), [&](const Root &root) {
        return !root.watched.empty() && point != root.watched && is_below(root.watched, point) &&
               (came || !has_marked_device(mounts, root, point));
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
    std::map<std::string, bool> points; /* whether something came there */
    for (const auto &change : changes)
        points[change.first] |= known_.count(change) > 0;
    for (const auto &[point, came] : points)
        if (is_missed(mounts, roots, point, came))
            changed_(point);
}

}  // namespace agent
