/*
 * unreadable.h: directories that may not be read, and so not be watched, until they may.
 */
#ifndef AGENT_UNREADABLE_H
#define AGENT_UNREADABLE_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/mutex.h"

namespace agent
{

class Unreadable
{
public:
    static constexpr size_t kMost = 1024; /* known at a time; more are counted without a name */

    /* The monitor was refused that directory. From any thread. */
    void refused(std::string_view path);

    struct News {
        std::vector<std::string> paths; /* refused for the first time since the last call */
        uint64_t repeated = 0;          /* refusals of such as are known */
    };
    News take();

    /* Calls `readable` for each that may be read by now, and forgets it; forgets those that are gone. */
    void look(const std::function<void(const std::string &path)> &readable);

    bool knows(std::string_view path) const;
    bool any() const;

private:
    mutable common::Mutex lock_;
    std::set<std::string, std::less<>> known_ GUARDED_BY(lock_);
    News news_ GUARDED_BY(lock_);
};

}  // namespace agent

#endif
