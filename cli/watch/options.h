/*
 * options.h: the command line of `fmon watch`, read into one structure.
 */
#ifndef CLI_OPTIONS_H
#define CLI_OPTIONS_H

#include <string>
#include <vector>

#include "agent/request.h"
#include "cli/front/verb.h"
#include "output/output_options.h"

namespace cli
{

struct WatchOptions : agent::Request, output::OutputOptions {
    bool help = false;
    bool list_events = false; /* print event_list() instead of watching */
    bool all_events = false;
    std::vector<std::string> listed; /* paths of --fromfile, which come behind those of the command line */
};

extern const VerbOf<WatchOptions> kWatch;

/* Its rows, for verbs that watch, too. */
std::span<const OptionRow<WatchOptions>> watch_rows();

int run_watch(const WatchOptions &options);

/* What in them contradicts itself, in words that say what to leave out; null: nothing. */
const char *find_contradiction(const WatchOptions &options);

/* Whether both halves of a rename may be seen. */
bool may_pair_renames(const agent::Request &request);

/* What `-e help` prints. */
std::string event_list();

}  // namespace cli

#endif
