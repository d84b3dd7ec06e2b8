/* `fmon watch`: options, plan, session. */

#include <unistd.h>

#include <cstdio>

#include "agent/message.h"
#include "cli/front/verbs.h"
#include "options.h"
#include "session.h"

namespace cli
{

int run_watch(int argc, char **argv)
{
    WatchOptions options;
    std::string error;
    if (!parse_watch(argc, argv, options, error)) {
        agent::complain(error);
        return agent::kError;
    }
    if (options.answer != Answer::kNone) {
        fputs((options.answer == Answer::kHelp ? watch_help() : event_list()).c_str(), stdout);
        return fflush(stdout) == 0 ? agent::kDone : agent::kError;
    }
    // The monitor's thread cannot be stopped, and must not see the session go: the process ends with both.
    Session session(options);
    _exit(session.run());
}

}  // namespace cli
