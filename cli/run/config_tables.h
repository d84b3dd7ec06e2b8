/*
 * config_tables.h: the keys of the service's configuration, a row each. What outputs have beside is in
 * output/sinks.h.
 */
#ifndef CLI_RUN_CONFIG_TABLES_H
#define CLI_RUN_CONFIG_TABLES_H

#include <span>

#include "checked_table.h"
#include "output/settings.h"

namespace cli
{

std::span<const output::Setting> service_keys();  /* [service] */
std::span<const output::Setting> instance_keys(); /* [[instance]] */
std::span<const output::Setting> watch_keys();    /* [[instance.watch]] */
std::span<const output::Setting> output_keys();   /* [[instance.output]], of every type */

/* [fmon]: how the monitor runs, and the keys of fmon.ini. */
Rows monitor_keys();

}  // namespace cli

#endif
