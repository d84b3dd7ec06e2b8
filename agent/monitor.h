/*
 * monitor.h: starting the monitor inside this process, as its agent.
 */
#ifndef AGENT_MONITOR_H
#define AGENT_MONITOR_H

#include <cstdint>
#include <string>

#include "module.h"
#include "own_log.h"
#include "placement.h"
#include "request.h"

namespace agent
{

/* Loads libfmon.so, sets the values of fmon.ini and the log for this run (`own`), and starts the monitor with its
 * thread, on which no signal is ever handled. False: `error` is one line for the user. There is no way to stop it but
 * the process's end. */
bool start_monitor(const Request &options, Placement &placement, Module &module, OwnLog &own, std::string &error);

/* What max_dentries is for this run. */
uint64_t max_dentries(const Request &options);

}  // namespace agent

#endif
