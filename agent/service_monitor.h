/*
 * service_monitor.h: the one monitor of a process in which several sessions run, with what they share: the processes of
 * events, and the answers to `fmon dump`.
 */
#ifndef AGENT_SERVICE_MONITOR_H
#define AGENT_SERVICE_MONITOR_H

#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "dump_server.h"
#include "intake.h"
#include "module.h"
#include "own_log.h"
#include "processes.h"
#include "request.h"

namespace agent
{

class ServiceMonitor
{
public:
    ServiceMonitor() = default;
    ServiceMonitor(const ServiceMonitor &) = delete;
    ServiceMonitor &operator=(const ServiceMonitor &) = delete;

    /* See start_monitor() in monitor.h. `ancestors`: those of processes will be shown. To be called once. */
    bool start(const Request &request, bool ancestors, std::string &error);
    /* No session runs any more. */
    void stop();

    const Module &module() const { return module_; }
    Processes &processes() { return processes_; }
    const OwnLog &own_log() const { return own_log_; }

    /* Whose events a dump can hold back: from start() to the end of the intake. Any thread. */
    void add(Intake &intake);
    void remove(Intake &intake);

private:
    void hold(bool on);

    Module module_ = {};
    Shared shared_;
    Processes processes_;
    OwnLog own_log_;
    std::unique_ptr<DumpServer> dump_server_; /* null: not started yet */
    common::Mutex lock_;
    std::vector<Intake *> intakes_ GUARDED_BY(lock_);
    bool held_ GUARDED_BY(lock_) = false;
};

}  // namespace agent

#endif
