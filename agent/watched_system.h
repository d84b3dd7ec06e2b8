/*
 * watched_system.h: the whole system as what a session watches (--system).
 */
#ifndef AGENT_WATCHED_SYSTEM_H
#define AGENT_WATCHED_SYSTEM_H

#include "module.h"
#include "plan.h"
#include "report.h"
#include "request.h"
#include "system_watch.h"
#include "watched.h"

namespace agent
{

class WatchedSystem : public Watched
{
public:
    /* The plan's one instance has the kinds. */
    WatchedSystem(const Request &request, const Module &module, const Plan &plan, Report &report)
        : kinds_(plan.instances[0].shown), watch_(module, request.source, plan.instances[0].name), report_(report)
    {
    }

    bool place(Intake &intake) override;
    void report_start() override;
    void look() override {}
    void mounts_changed() override { watch_.follow_mounts(); }
    LeftOut report_left_out(uint64_t count) override;
    void leave() override { watch_.leave(); }

private:
    const uint32_t kinds_;
    SystemWatch watch_;
    Report &report_;
};

}  // namespace agent

#endif
