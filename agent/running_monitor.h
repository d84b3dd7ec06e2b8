/*
 * running_monitor.h: the monitor in this process, with what its one session has around it: what it marks and
 * refuses, and the answers to `fmon dump`.
 */
#ifndef AGENT_RUNNING_MONITOR_H
#define AGENT_RUNNING_MONITOR_H

#include <memory>
#include <string>

#include "dump_server.h"
#include "intake.h"
#include "module.h"
#include "own_log.h"
#include "placement.h"
#include "request.h"
#include "session.h"

namespace agent
{

class RunningMonitor : public Monitor
{
public:
    /* `queue` is woken when there is a refusal to be looked at. */
    RunningMonitor(Intake &intake, const EventQueue &queue);

    /* See start_monitor() in monitor.h. To be called once. */
    bool start(const Request &request, OwnLog &own, std::string &error);
    /* From now on nobody listens to what is marked. */
    void stop() { placement_.stop(); }

    const Module &module() const { return module_; }
    Placement &placement() { return placement_; }

    bool read_status(struct fmon_status &out) const override { return module_.read_status(out); }
    uint64_t process_losses() const override { return intake_.processes().losses(); }
    bool has_findings() const override { return placement_.any(); }
    Findings take_findings() override { return placement_.take(); }
    bool end_hold() override { return dump_server_ && dump_server_->stop(); }
    uint64_t release() override;

private:
    Intake &intake_;
    Placement placement_;
    Module module_ = {};
    std::unique_ptr<DumpServer> dump_server_; /* null: not started yet */
};

}  // namespace agent

#endif
