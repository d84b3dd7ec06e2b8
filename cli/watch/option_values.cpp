#include "option_values.h"

#include <cstring>
#include <string_view>

#include "agent/event_names.h"
#include "agent/settings.h"
#include "agent/time_format.h"
#include "output/formats.h"
#include "path_list.h"

namespace cli
{

namespace
{

const agent::Setting *find_setting(std::string_view name)
{
    for (const agent::Setting &setting : agent::kSettingTable)
        if (name == setting.name)
            return &setting;
    return nullptr;
}

std::string setting_names()
{
    std::string names;
    for (const agent::Setting &setting : agent::kSettingTable)
        names += (names.empty() ? "" : ", ") + std::string(setting.name);
    return names;
}

}  // namespace

namespace take
{

// Repeated lists add up, as repeated options do elsewhere.
bool events(WatchOptions &options, const Given &given, std::string &error)
{
    if (strcmp(given.value, "help") == 0) {
        options.list_events = true;
        return true;
    }
    uint32_t mask;
    std::string unknown;
    if (!agent::parse_events(given.value, mask, unknown)) {
        error = "unknown event '" + unknown + "': -e help lists the names";
        return false;
    }
    options.events |= mask;
    options.all_events = options.events == 0xfff;
    return mask != 0 || bad_value(given, "names of events, such as create,delete", error);
}

bool fromfile(WatchOptions &options, const Given &given, std::string &error)
{
    if (!*given.value)
        return bad_value(given, "the name of a file, or - for the standard input", error);
    return read_path_list(given.value, options.listed, error);
}

// Any "%" makes a template: a misspelt name of a form would otherwise be printed for every event.
bool format(WatchOptions &options, const Given &given, std::string &error)
{
    options.format = given.value;
    options.ancestors = options.ancestors || output::asks_for(given.value, 'a');
    options.pair_renames = options.pair_renames || output::asks_for(given.value, 'o');
    return output::find_format(given.value) || strchr(given.value, '%') ||
           bad_value(given, output::format_names() + " or a template such as '%e %p'", error);
}

bool time_format(WatchOptions &options, const Given &given, std::string &error)
{
    options.time_format = given.value;
    const bool fits = *given.value && options.time_format.size() <= agent::FormattedTime::kMaxFormat;
    return fits || bad_value(given, "a format such as '%F %T', of at most 128 bytes", error);
}

bool count(WatchOptions &options, const Given &given, std::string &error)
{
    return parse_number(given.value, 1, UINT64_MAX, options.count) ||
           bad_value(given, "a number of events, 1 or more", error);
}

// The least is a millisecond; the most is far from where milliseconds overflow.
bool timeout(WatchOptions &options, const Given &given, std::string &error)
{
    return parse_seconds(given.value, 0.001, 1e9, options.timeout_ms) ||
           bad_value(given, "seconds, such as 10 or 0.5", error);
}

// Ranges are checked here, since the monitor quietly keeps its own value, or refuses to start, for a bad one.
bool setting(WatchOptions &options, const Given &given, std::string &error)
{
    const char *equals = strchr(given.value, '=');
    const std::string name = equals ? std::string(given.value, equals) : std::string(given.value);
    const agent::Setting *setting = find_setting(name);
    if (!setting) {
        error = "--set: unknown key '" + name + "'; the keys are " + setting_names();
        return false;
    }
    uint64_t number;
    if (!equals || !parse_number(equals + 1, setting->low, setting->high, number)) {
        const std::string range = std::to_string(setting->low) + " to " + std::to_string(setting->high);
        return bad_value(given, name + "=NUMBER with a number from " + range, error);
    }
    options.settings.emplace_back(name, equals + 1);
    return true;
}

bool log_level(WatchOptions &options, const Given &given, std::string &error)
{
    uint64_t number;
    if (!parse_number(given.value, 2, 4, number))  // the command itself reads the warnings
        return bad_value(given, "2 (warnings), 3 (information) or 4 (everything)", error);
    options.log_level = static_cast<int>(number);
    return true;
}

bool verbose(WatchOptions &options, const Given &, std::string &)
{
    options.log_level = 4;
    options.log_to_stderr = true;
    return true;
}

std::string setting_words()
{
    std::string words;
    for (const agent::Setting &setting : agent::kSettingTable)
        words += (words.empty() ? "" : " ") + std::string(setting.name) + "=";
    return words;
}

}  // namespace take

}  // namespace cli
