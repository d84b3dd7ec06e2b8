/*
 * stats.h: the figures of a service, and their form as JSON: what its socket answers.
 */
#ifndef CLI_RUN_STATS_H
#define CLI_RUN_STATS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "orx_fmon.h"
#include "output/fanout.h"

namespace cli
{

struct WatchStats {
    std::vector<std::string> paths; /* as configured; empty: the whole system */
    std::string state;              /* "placing", "watching", "failed", "ended" */
    std::string source;             /* as in Established */
    uint64_t directories = 0, queue = 0;
    uint64_t waiting_paths = 0; /* that are waited for now */
};

struct InstanceStats {
    std::string name;
    output::FanoutFigures figures;
    std::vector<WatchStats> watches;
    std::vector<output::OutletFigures> outputs;
};

struct ServiceStats {
    std::string host, boot, config, state, reload_error;
    uint64_t start_ns = 0, uptime_ms = 0, reloads = 0;
    std::map<std::string, uint64_t> losses; /* by the sources of loss records, since the start */
    struct fmon_status monitor = {};
    std::vector<InstanceStats> instances;
};

/* One line, without its end. `now_ms`: agent::steady_ms(). */
std::string stats_json(const ServiceStats &stats, uint64_t now_ms);

}  // namespace cli

#endif
