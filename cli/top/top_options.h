/*
 * top_options.h: the command line of `fmon top`, read into one structure.
 */
#ifndef CLI_TOP_OPTIONS_H
#define CLI_TOP_OPTIONS_H

#include <optional>

#include "cli/watch/options.h"
#include "counts.h"

namespace cli
{

/* What is watched, and which events count, is said as for `fmon watch`. */
struct TopOptions : WatchOptions {
    std::optional<By> by;
    Sort sort = Sort::kRate;
    uint64_t interval_ms = 1000;
    bool batch = false;
    uint64_t tables = 0; /* 0: no end */
    uint32_t rows = 10;  /* of each table */
};

extern const VerbOf<TopOptions> kTop;

int run_top(const TopOptions &given);

}  // namespace cli

#endif
