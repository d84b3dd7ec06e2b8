/*
 * config_read.h: the service's configuration, from text.
 */
#ifndef CLI_RUN_CONFIG_READ_H
#define CLI_RUN_CONFIG_READ_H

#include <string>
#include <string_view>
#include <vector>

#include "config.h"
#include "faults.h"

namespace cli
{

/* All that is wrong goes into `faults`; where that is empty, `config` can be run. */
void read_config(std::string_view text, Config &config, Faults &faults);

/* The configuration in that file; what is wrong with it, a line each: none: it can be run. */
std::vector<std::string> load_config(const std::string &file, Config &config);

/* What may be a mistake and is none: a line each. */
std::vector<std::string> config_warnings(const Config &config);

/* Paths that are not there, and are waited for from the start on: a line each. */
std::vector<std::string> config_awaited(const Config &config);

/* Instances of the monitor that the watches of an instance need. */
size_t monitor_instances(const InstanceConfig &instance);

inline constexpr size_t kMostPaths = 1000; /* of an instance, beyond which it is slow to place and to look after */

}  // namespace cli

#endif
