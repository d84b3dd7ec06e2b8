/*
 * own_log.h: where the monitor's own log goes, so that it is no event of the watch that writes it.
 */
#ifndef AGENT_OWN_LOG_H
#define AGENT_OWN_LOG_H

#include <string>
#include <vector>

#include "request.h"

namespace agent
{

inline constexpr int kLogFiles = 5;

/* Directories in which this user's log may lie, the most wanted first: the installation's, $XDG_STATE_HOME/fmon or
 * ~/.local/state/fmon, $XDG_RUNTIME_DIR/fmon. A log that has a line for each event (from --log-level 3 on) would never
 * come to rest in a place that is watched: those are left out. `installed` is the installation's directory. */
std::vector<std::string> log_directories(const Request &options, const std::string &installed);

struct OwnLog {
    std::vector<std::string> files; /* its directory and the files in it: what happens to them is not to be shown */
    std::string note;               /* for the user; empty: none */
};

/* Opens the log in the first of them that can be written to; where there is none it goes nowhere, for the terminal is
 * for events, which is noted where lines for each event were wanted. To be called before the monitor starts, which
 * opens its log in the same place. */
OwnLog open_own_log(const Request &options);

}  // namespace agent

#endif
