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
#include "request.h"

namespace agent
{

class SystemWatch
{
public:
    /* `name`: of the monitor's instance. */
    SystemWatch(const Module &module, Source source, std::string name = "system")
        : module_(module), source_(source), name_(std::move(name))
    {
    }

    /* False: `error` is one line for the user. To be called once. */
    bool place(uint32_t kinds, fmon_client_cb callback, std::string &error);

    /* Gives the instance up. */
    void leave();

    /* Whether marks of file systems serve it, and not kernel probes. */
    bool by_file_systems() const { return by_file_systems_; }

    /* Mounted file systems that should be served by their mark and take none, and in words, one of them and why. */
    uint64_t left_out() const { return left_out_; }
    std::string left_out_words() const;

    /* Takes the mounts in that have come since. What could not be taken in is said on stderr. */
    void follow_mounts();

private:
    using MountPoints = std::set<std::pair<std::string, uint64_t>>; /* place and id */

    static MountPoints device_mounts();
    void watch_closes(const std::string &point) const;
    std::string why_not(const struct fmon_status &now) const;

    const Module &module_;
    const Source source_;
    const std::string name_;
    bool placed_ = false;
    bool by_file_systems_ = false;
    uint32_t instance_ = 0, kinds_ = 0;
    uint64_t left_out_ = 0;
    struct fmon_fallback met_ = {}; /* the latest of them */
    MountPoints known_;
    bool told_full_ = false;
};

}  // namespace agent

#endif
