#include "stats_options.h"

namespace cli
{

namespace
{

using O = StatsOptions;

constexpr char kHead[] =
    R"(Usage: fmon stats [OPTION]...

Shows the figures of a running fmon run: what is watched, events in and out, queues, losses, latencies, and how each
output does.
)";

constexpr char kTail[] = R"(
Examples:
  fmon stats                           the service of this machine
  fmon stats -f json | jq .losses      what was missed since its start
  fmon stats -f prometheus             for a collector of text files

Status: 0 done; 2 wrong usage, or no service answers.
)";

constexpr OptionRow<O> kRows[] = {
    {{0, "socket", "PATH", "the service's socket; default: /run/fmon/fmon.sock", kFiles, "Options"},
     set_text<O, &O::socket>},
    {{'f', "format", "FORM", "text (default), json: one object, or prometheus: text exposition",
      one_of("text json prometheus")},
     set_choice<O, &O::form>},
    {{'h', "help", nullptr, "this text"}, set_flag<O, &O::help>},
};

bool take_none(O &, VerbOf<O>::Arguments arguments, std::string &error)
{
    if (!arguments.empty())
        error = std::string("fmon stats takes no argument, not '") + arguments[0] + "'";
    return error.empty();
}

}  // namespace

constinit const VerbOf<O> kStats({"stats", "show the figures of a running service", kHead, kTail}, kRows, take_none,
                                 run_stats);

}  // namespace cli
