/*
 * config_watch.h: an [[instance.watch]] of the configuration, as the request of a session.
 */
#ifndef CLI_RUN_CONFIG_WATCH_H
#define CLI_RUN_CONFIG_WATCH_H

#include "agent/request.h"
#include "faults.h"
#include "toml_value.h"

namespace cli
{

/* `monitor`: what holds for all watches: source, probes, settings. */
agent::Request read_watch(const TomlValue &value, const agent::Request &monitor, Faults &faults);

}  // namespace cli

#endif
