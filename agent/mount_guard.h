/*
 * mount_guard.h: file systems that come and go inside a watched tree.
 *
 * What lies below a mount point is another tree from then on, and none of its directories is marked. A mark of a whole
 * file system hears what a mount covers, so that nothing is missed when this goes.
 */
#ifndef AGENT_MOUNT_GUARD_H
#define AGENT_MOUNT_GUARD_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "mounts.h"
#include "plan.h"

namespace agent
{

class MountGuard
{
public:
    /* `changed` is called for each mount point below a watched directory at which something came, or went from above
     * what was not heard meanwhile. */
    explicit MountGuard(std::function<void(const std::string &point)> changed) : changed_(std::move(changed)) {}

    /* Compares with the look before; the first reports nothing. */
    void look(const std::vector<Mount> &mounts, const std::vector<Root> &roots);

private:
    std::function<void(const std::string &)> changed_;
    std::set<std::pair<std::string, uint64_t>> known_; /* point and id */
    bool started_ = false;
};

}  // namespace agent

#endif
