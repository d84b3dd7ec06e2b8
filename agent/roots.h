/*
 * roots.h: whether the watched paths are still there.
 */
#ifndef AGENT_ROOTS_H
#define AGENT_ROOTS_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "plan.h"

namespace agent
{

/* Why what `path` was is there no more, or null when it is: "deleted", "moved", "unmounted", or "covered" by something
 * that was mounted over it or above it. */
const char *end_reason(const std::string &path, const Identity &then);

/* Notices the end of the watches on paths that are not waited for. `ended` is called once for each, with the reason:
 * see end_reason(). */
class RootGuard
{
public:
    RootGuard(std::vector<Root> &roots, std::function<void(Root &, const char *reason)> ended)
        : roots_(roots), ended_(std::move(ended))
    {
    }

    /* An event of a kind that ends a watch, on any path. */
    void event(std::string_view path, uint32_t mask);

    /* Looks at the paths themselves: a mount that goes, and a directory above that is renamed, make no event. */
    void look();

    bool all_ended() const;

private:
    void end(Root &root, const char *reason);

    std::vector<Root> &roots_;
    std::function<void(Root &, const char *)> ended_;
};

}  // namespace agent

#endif
