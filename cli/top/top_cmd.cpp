/* `fmon top`: a session whose report is a board, and a display that shows it. */
#include <unistd.h>

#include "agent/message.h"
#include "agent/session_run.h"
#include "agent/time_format.h"
#include "columns.h"
#include "display.h"
#include "output/print.h"
#include "top_options.h"
#include "top_report.h"

namespace cli
{

namespace
{

bool complain(const std::string &line)
{
    agent::complain(line);
    return false;
}

}  // namespace

int run_top(const TopOptions &given)
{
    if (given.list_events)
        return output::print_out(event_list());
    TopOptions options = given;
    options.system = options.paths.empty();
    options.settings.insert(options.settings.begin(), {"fs_rest", "20"});  // what --set says comes later, and counts
    choose_widths();
    Board board(agent::steady_ms());
    Display display(options, board);
    std::string error;
    TopReport report(options, board, [&] { return display.start(error) || complain(error); });
    if (!report.prepare(error) || (!options.batch && has_screen() && !Screen::check(error)))
        return complain(error), agent::kError;
    agent::SessionRun session(options, report);
    const int status = session.run();
    display.stop();
    report.say_warnings();
    // The monitor's thread cannot be stopped, and must not see the session go: the process ends with both.
    _exit(status);
}

}  // namespace cli
