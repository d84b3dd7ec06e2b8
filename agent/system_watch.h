/*
 * system_watch.h: the one watch of `fmon watch --system`.
 */
#ifndef AGENT_SYSTEM_WATCH_H
#define AGENT_SYSTEM_WATCH_H

#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "module.h"
#include "orx_fmon.h"

namespace agent
{

class SystemWatch
{
public:
    explicit SystemWatch(const Module &module) : module_(module) {}

    /* False: `error` is one line for the user. To be called once. */
    bool place(uint32_t kinds, fmon_client_cb callback, std::string &error);

    /* Takes the mounts in that have come since. What could not be taken in is told on stderr. */
    void follow_mounts();

private:
    using MountPoints = std::set<std::pair<std::string, uint64_t>>; /* place and id */

    static MountPoints device_mounts();
    void watch_closes(const std::string &point) const;

    const Module &module_;
    uint32_t instance_ = 0, kinds_ = 0;
    MountPoints known_;
    bool told_full_ = false;
};

}  // namespace agent

#endif
