/*
 * config.h: what the service's configuration asks for.
 */
#ifndef CLI_RUN_CONFIG_H
#define CLI_RUN_CONFIG_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "agent/request.h"
#include "output/event_filter.h"
#include "output/pacing.h"
#include "output/settings.h"

namespace cli
{

struct OutputConfig {
    std::string type;
    std::string format; /* a name of output/formats.h, or a template */
    bool ancestors = false;
    bool pairs = false; /* CSV has a column for the old path of a rename */
    bool stat = false;
    std::string time_format;
    output::Settings settings; /* of the type, with defaults */

    bool operator==(const OutputConfig &) const = default;
};

struct InstanceConfig {
    std::string name;
    std::vector<agent::Request> watches;
    output::FilterOptions filter;
    output::PacingOptions pacing;
    std::vector<OutputConfig> outputs;

    bool operator==(const InstanceConfig &) const = default;
};

/* What is fixed at the start of the service. */
struct ServiceConfig {
    std::string state_directory, socket;
    std::string prometheus; /* empty: nothing listens */
    uint64_t drain_ms = 0;
    agent::Request monitor; /* its `settings`, `source`, `probes` and `log_level` count */

    bool operator==(const ServiceConfig &) const = default;
};

struct Config {
    ServiceConfig service;
    std::vector<InstanceConfig> instances;
};

}  // namespace cli

#endif
