/* `fmon watch`: options, plan, session. */

#include <unistd.h>

#include "options.h"
#include "session.h"

namespace cli
{

int run_watch(const WatchOptions &options)
{
    if (options.list_events)
        return output::print_out(event_list());
    // The monitor's thread cannot be stopped, and must not see the session go: the process ends with both.
    Session session(options);
    _exit(session.run());
}

}  // namespace cli
