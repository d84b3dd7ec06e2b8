#include "dump_options.h"

#include <getopt.h>

#include <charconv>
#include <cmath>
#include <cstring>

namespace cli
{

namespace
{

constexpr char kHead[] =
    R"(Usage: fmon dump [OPTION]... [PID]

Shows the state of the monitor inside a running fmon watch: its instances, watches, known directories and waiting
events. PID is the process of the watch; without it, the only one that runs is asked. Root may ask all of them, other
users their own. The watch goes on meanwhile and loses nothing.

Options:
  -t, --type TYPE         what to show, one of the types below or its number; usual: all
      --hold S            let events gather in the monitor for S seconds first (at most 60), so that
                          they are seen; the watch shows them afterwards
  -h, --help              this text

Types:
)";

constexpr char kTail[] = R"(
Examples:
  fmon dump                            all of the watch that runs
  fmon dump -t instances 4711          what process 4711 watches, and for whom
  fmon dump -t events --hold 5         the events of the next five seconds, as the monitor keeps them

Status: 0 done; 2 wrong usage, or there is none, or more than one, that could be asked.
)";

const struct option kLongOptions[] = {{"type", required_argument, nullptr, 't'},
                                      {"hold", required_argument, nullptr, 'H'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};

bool take_type(const char *value, DumpOptions &options, std::string &error)
{
    if (agent::parse_dump_type(value, options.request.type))
        return true;
    std::string names;
    for (const agent::DumpType &type : agent::kDumpTypeTable)
        names += std::string(type.name) + (&type == &agent::kDumpTypeTable[agent::kDumpTypes - 1] ? "" : ", ");
    error = "--type takes " + names + " (or 0 to 7), not '" + value + "'";
    return false;
}

bool take_hold(const char *value, DumpOptions &options, std::string &error)
{
    double seconds = 0;
    const char *end = value + strlen(value);
    const auto [stopped, code] = std::from_chars(value, end, seconds, std::chars_format::fixed);
    if (code != std::errc() || stopped != end || !(seconds >= 0.001 && seconds * 1000 <= agent::kMaxHoldMs)) {
        error = std::string("--hold takes seconds from 0.001 to 60, not '") + value + "'";
        return false;
    }
    options.request.hold_ms = static_cast<uint32_t>(std::llround(seconds * 1000));
    return true;
}

bool take_pid(const char *value, DumpOptions &options, std::string &error)
{
    const char *end = value + strlen(value);
    const auto [stopped, code] = std::from_chars(value, end, options.pid);
    if (code == std::errc() && stopped == end && options.pid > 0)
        return true;
    error = std::string("PID is the number of a process, not '") + value + "'";
    return false;
}

bool take_option(int code, char **argv, DumpOptions &options, std::string &error)
{
    switch (code) {
        case 't':
            return take_type(optarg, options, error);
        case 'H':
            return take_hold(optarg, options, error);
        case 'h':
            options.help = true;
            return true;
        case ':':
            error = std::string(optopt == 'H' ? "--hold" : "--type") + " needs a value";
            return false;
        default:
            error = std::string("unknown option '") +
                    (optopt ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1])) +
                    "': see fmon dump --help";
            return false;
    }
}

}  // namespace

bool parse_dump(int argc, char **argv, DumpOptions &options, std::string &error)
{
    opterr = 0;
    optind = 0;  // starts a new scan
    int code;
    while ((code = getopt_long(argc, argv, ":t:h", kLongOptions, nullptr)) != -1)
        if (!take_option(code, argv, options, error))
            return false;
    if (options.help || optind == argc)
        return true;
    if (argc - optind > 1) {
        error = "only one PID can be asked at a time";
        return false;
    }
    return take_pid(argv[optind], options, error);
}

std::string dump_help()
{
    std::string text = kHead;
    for (uint32_t i = 0; i < agent::kDumpTypes; i++) {
        std::string line = "  " + std::to_string(i) + "  " + agent::kDumpTypeTable[i].name;
        line.resize(16, ' ');
        text += line + agent::kDumpTypeTable[i].meaning + "\n";
    }
    return text + kTail;
}

}  // namespace cli
