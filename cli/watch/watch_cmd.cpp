/* `fmon watch`: options, reporter, session. */
#include <unistd.h>

#include <string>

#include "agent/message.h"
#include "agent/session_run.h"
#include "options.h"
#include "output/print.h"
#include "output/reporter.h"

namespace cli
{

int run_watch(const WatchOptions &options)
{
    if (options.list_events)
        return output::print_out(event_list());
    output::Reporter reporter(options, options);
    std::string error;
    if (!reporter.prepare(error)) {
        agent::complain(error);
        return agent::kError;
    }
    // The monitor's thread cannot be stopped, and must not see the session go: the process ends with both.
    _exit(agent::SessionRun(options, reporter).run());
}

}  // namespace cli
