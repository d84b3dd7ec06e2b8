#include "run_options.h"

namespace cli
{

namespace
{

constexpr char kHead[] =
    R"(Usage: fmon run [OPTION]...

Watches what a configuration names, and hands events to its outputs, until it is told to end: the service of a machine.
)";

constexpr char kTail[] = R"(
Signals: SIGHUP reads the configuration anew; what is the same stays watched, and a file with errors changes nothing.
SIGTERM and SIGINT end it once the outputs have what was seen, within the time that 'drain' gives them.

Examples:
  fmon run                             the service, with /etc/fmon/fmon.toml
  fmon run --check                     says what is wrong with that file, and ends
  fmon run --config ./my.toml          with another configuration

Status: 0 told to end, or the configuration is right; 2 wrong usage, a configuration with errors, an output that cannot
be had, or nothing that could be watched.
)";

constexpr OptionRow<RunOptions> kRows[] = {
    {{'c', "config", "FILE", "the configuration; without it /etc/fmon/fmon.toml", kFiles, "Options"},
     set_text<RunOptions, &RunOptions::config>},
    {{0, "check", nullptr, "only say what is wrong with the configuration: nothing is watched or\nopened"},
     set_flag<RunOptions, &RunOptions::check>},
    {{'h', "help", nullptr, "this text"}, set_flag<RunOptions, &RunOptions::help>},
};

bool take_nothing(RunOptions &, VerbOf<RunOptions>::Arguments arguments, std::string &error)
{
    if (!arguments.empty())
        error = "fmon run takes no argument: name the configuration with --config FILE";
    return error.empty();
}

}  // namespace

constinit const VerbOf<RunOptions> kRun({"run", "watch what a configuration names, as a service", kHead, kTail}, kRows,
                                        take_nothing, run_service);

}  // namespace cli
