#include "dump_options.h"

#include <limits>

namespace cli
{

namespace
{

constexpr char kHead[] =
    R"(Usage: fmon dump [OPTION]... [PID]

Shows the state of the monitor inside a running fmon watch: its instances, watches, known directories and waiting
events. PID is the process of the watch; without it, the only one that runs is asked. Root may ask all of them, other
users their own. The watch goes on meanwhile and loses nothing.
)";

constexpr char kTail[] = R"(
Examples:
  fmon dump                            all of the watch that runs
  fmon dump -t instances 4711          what process 4711 watches, and for whom
  fmon dump -t events --hold 5         the events of the next five seconds, as the monitor keeps them

Status: 0 done; 2 wrong usage, or there is none, or more than one, that could be asked.
)";

std::string type_names() { return names_of(agent::kDumpTypeTable); }

std::string type_list()
{
    std::string text = "\nTypes:\n";
    for (uint32_t i = 0; i < agent::kDumpTypes; i++) {
        std::string line = "  " + std::to_string(i) + "  " + agent::kDumpTypeTable[i].name;
        line.resize(16, ' ');
        text += line + agent::kDumpTypeTable[i].meaning + "\n";
    }
    return text;
}

bool take_type(DumpOptions &options, const Given &given, std::string &error)
{
    if (agent::parse_dump_type(given.value, options.request.type))
        return true;
    std::string names;
    for (const agent::DumpType &type : agent::kDumpTypeTable)
        names += (names.empty() ? "" : ", ") + std::string(type.name);
    return bad_value(given, names + " (or 0 to 7)", error);
}

bool take_hold(DumpOptions &options, const Given &given, std::string &error)
{
    uint64_t milliseconds;
    if (!parse_seconds(given.value, 0.001, agent::kMaxHoldMs / 1000.0, milliseconds))
        return bad_value(given, "seconds from 0.001 to 60", error);
    options.request.hold_ms = static_cast<uint32_t>(milliseconds);
    return true;
}

constexpr OptionRow<DumpOptions> kRows[] = {
    {{'t', "type", "TYPE", "what to show, one of the types below or its number; default: all", one_of(type_names),
      "Options"},
     take_type},
    {{0, "hold", "S",
      "let events gather in the monitor for S seconds first (at most 60), so that\nthey are seen; the watch shows them "
      "afterwards"},
     take_hold},
    {{'h', "help", nullptr, "this text"}, set_flag<DumpOptions, &DumpOptions::help>},
};

bool take_pid(DumpOptions &options, VerbOf<DumpOptions>::Arguments arguments, std::string &error)
{
    uint64_t pid = 0;
    if (arguments.size() > 1)
        error = "only one PID can be asked at a time";
    else if (!arguments.empty() && !parse_number(arguments[0], 1, std::numeric_limits<pid_t>::max(), pid))
        error = std::string("PID is the number of a process, not '") + arguments[0] + "'";
    options.pid = static_cast<pid_t>(pid);
    return error.empty();
}

}  // namespace

constinit const VerbOf<DumpOptions> kDump({"dump", "show the state of a running watch", kHead, kTail, type_list,
                                           kWatches, Wording::kShort},
                                          kRows, take_pid, run_dump);

}  // namespace cli
