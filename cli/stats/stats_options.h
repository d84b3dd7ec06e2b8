/*
 * stats_options.h: the command line of `fmon stats`, read into one structure.
 */
#ifndef CLI_STATS_OPTIONS_H
#define CLI_STATS_OPTIONS_H

#include <string>

#include "cli/front/verb.h"

namespace cli
{

enum class StatsForm { kText, kJson, kPrometheus };

struct StatsOptions {
    std::string socket = "/run/fmon/fmon.sock";
    StatsForm form = StatsForm::kText;
    bool help = false;
};

extern const VerbOf<StatsOptions> kStats;

int run_stats(const StatsOptions &options);

}  // namespace cli

#endif
