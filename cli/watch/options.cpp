#include "options.h"

#include <getopt.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

#include "agent/event_names.h"
#include "agent/settings.h"
#include "option_table.h"

namespace cli
{

namespace
{

// The whole text as a number within the limits.
bool parse_number(const char *text, uint64_t low, uint64_t high, uint64_t &value)
{
    const char *end = text + strlen(text);
    const auto [stopped, code] = std::from_chars(text, end, value);
    return code == std::errc() && stopped == end && value >= low && value <= high;
}

bool bad_value(const char *option, const char *value, const std::string &wanted, std::string &error)
{
    error = std::string(option) + " takes " + wanted + ", not '" + value + "'";
    return false;
}

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
bool events(WatchOptions &o, const char *value, std::string &error)
{
    if (strcmp(value, "help") == 0) {
        o.answer = Answer::kEventList;
        return true;
    }
    uint32_t mask;
    std::string unknown;
    if (!agent::parse_events(value, mask, unknown)) {
        error = "unknown event '" + unknown + "': -e help lists the names";
        return false;
    }
    if (mask == 0)
        return bad_value("--events", value, "names of events, such as create,delete", error);
    o.events |= mask;
    o.all_events = o.events == 0xfff;
    return true;
}

bool max_depth(WatchOptions &o, const char *value, std::string &error)
{
    uint64_t number;
    // The monitor keeps 16 bits of it.
    if (!parse_number(value, 1, 65535, number))
        return bad_value("--max-depth", value, "a number from 1 to 65535", error);
    o.max_depth = static_cast<uint32_t>(number);
    return true;
}

bool max_subdirs(WatchOptions &o, const char *value, std::string &error)
{
    uint64_t number;
    if (!parse_number(value, 1, 0x7fffffff, number))
        return bad_value("--max-subdirs", value, "a number from 1 to 2147483647", error);
    o.max_subdirs = static_cast<uint32_t>(number);
    return true;
}

// Any "%" makes a template: a misspelt name of a form would otherwise be printed for every event.
bool format(WatchOptions &o, const char *value, std::string &error)
{
    const std::string_view text(value);
    if (text == "text" || text == "json" || text == "csv") {
        o.form = text == "text" ? output::Form::kText : text == "json" ? output::Form::kJson : output::Form::kCsv;
        return true;
    }
    if (text.find('%') == std::string_view::npos)
        return bad_value("--format", value, "text, json, csv or a template such as '%e %p'", error);
    o.form = output::Form::kTemplate;
    o.pattern = text;
    return true;
}

bool count(WatchOptions &o, const char *value, std::string &error)
{
    return parse_number(value, 1, UINT64_MAX, o.count) ||
           bad_value("--count", value, "a number of events, 1 or more", error);
}

// The limits keep "nan", "inf" and what rounds to nothing out; the range is far from where milliseconds overflow.
bool timeout(WatchOptions &o, const char *value, std::string &error)
{
    double seconds = 0;
    const char *end = value + strlen(value);
    const auto [stopped, code] = std::from_chars(value, end, seconds, std::chars_format::fixed);
    if (code != std::errc() || stopped != end || !(seconds >= 0.001 && seconds <= 1e9))
        return bad_value("--timeout", value, "seconds, such as 10 or 0.5", error);
    o.timeout_ms = static_cast<uint64_t>(std::llround(seconds * 1000));
    return true;
}

// Ranges are checked here, since the monitor quietly keeps its own value, or refuses to start, for a bad one.
bool set(WatchOptions &o, const char *value, std::string &error)
{
    const char *equals = strchr(value, '=');
    const std::string name = equals ? std::string(value, equals) : std::string(value);
    const agent::Setting *setting = find_setting(name);
    if (!setting) {
        error = "--set: unknown key '" + name + "'; the keys are " + setting_names();
        return false;
    }
    uint64_t number;
    if (!equals || !parse_number(equals + 1, setting->low, setting->high, number)) {
        const std::string range = std::to_string(setting->low) + " to " + std::to_string(setting->high);
        return bad_value("--set", value, name + "=NUMBER with a number from " + range, error);
    }
    o.settings.emplace_back(name, equals + 1);
    return true;
}

bool probes(WatchOptions &o, const char *value, std::string &error)
{
    const std::string_view text(value);
    if (text != "auto" && text != "on" && text != "off")
        return bad_value("--probes", value, "auto, on or off", error);
    o.probes = text == "auto" ? agent::Probes::kAuto : text == "on" ? agent::Probes::kOn : agent::Probes::kOff;
    return true;
}

bool log(WatchOptions &o, const char *value, std::string &error)
{
    const std::string_view text(value);
    if (text != "file" && text != "stderr")
        return bad_value("--log", value, "file or stderr", error);
    o.log_to_stderr = text == "stderr";
    return true;
}

bool log_level(WatchOptions &o, const char *value, std::string &error)
{
    uint64_t number;
    if (!parse_number(value, 2, 4, number))  // the command itself reads the warnings
        return bad_value("--log-level", value, "2 (warnings), 3 (information) or 4 (everything)", error);
    o.log_level = static_cast<int>(number);
    return true;
}

bool text(std::string &out, const char *option, const char *value, std::string &error)
{
    out = value;
    return !out.empty() || bad_value(option, value, "a text that is not empty", error);
}

}  // namespace take

namespace
{

/* The option table in getopt_long's form. An option without a letter is known by its row + kFirstLong. */
constexpr int kFirstLong = 256;

struct Getopt {
    std::string letters = ":";
    std::vector<struct option> options;
};

Getopt getopt_form()
{
    Getopt form;
    for (size_t i = 0; i < kOptionRows; i++) {
        const OptionRow &row = kOptionTable[i];
        form.options.push_back(
            {row.name, row.argument ? required_argument : no_argument, nullptr, kFirstLong + static_cast<int>(i)});
        if (row.letter) {
            form.letters.push_back(row.letter);
            form.letters += row.argument ? ":" : "";
        }
    }
    form.options.push_back({nullptr, 0, nullptr, 0});
    return form;
}

const OptionRow *find_row(int code)
{
    for (size_t i = 0; i < kOptionRows; i++)
        if (code == kFirstLong + static_cast<int>(i) || (code < kFirstLong && code == kOptionTable[i].letter))
            return &kOptionTable[i];
    return nullptr;
}

// getopt_long leaves the option's code in optopt, or 0 for a long name that it does not know.
// One line in our words: getopt_long itself would name the program by its path and know nothing of verbs.
std::string getopt_complaint(int code, char **argv)
{
    const OptionRow *row = optopt ? find_row(optopt) : nullptr;
    if (code == ':' && row)
        return std::string("--") + row->name + " needs a value: " + row->argument;
    if (row)
        return std::string("--") + row->name + " takes no value";
    if (optopt && optopt < kFirstLong)
        return std::string("unknown option '-") + static_cast<char>(optopt) + "': see fmon watch --help";
    return std::string("unknown or ambiguous option '") + argv[optind - 1] + "': see fmon watch --help";
}

bool apply(const OptionRow &row, const char *value, WatchOptions &options, std::string &error)
{
    if (row.flag)
        options.*row.flag = true;
    return !row.take || row.take(options, value, error);
}

bool reject_if(bool condition, const char *reason, std::string &error)
{
    if (condition)
        error = reason;
    return condition;
}

// What contradicts itself, each in words that say what to leave out.
bool check_combination(const WatchOptions &o, std::string &error)
{
    const uint32_t beyond = o.all_events ? 0 : o.events & ~agent::kProcessEvents;
    const uint32_t beyond_system = o.all_events ? 0 : o.events & ~agent::kSystemEvents;
    return !(
        reject_if(!o.system && o.paths.empty(), "no PATH to watch: see fmon watch --help", error) ||
        reject_if(o.system && !o.paths.empty(), "--system is about all paths: leave out the PATH", error) ||
        reject_if(o.system && (o.recursive || o.mount || o.pid || o.delay || o.sync || o.wait || o.max_depth),
                  "--system goes with none of the options that say how a path is watched", error) ||
        reject_if(o.system && beyond_system,
                  "--system knows create, delete, moved_from, moved_to and close_write only: leave out the others",
                  error) ||
        reject_if(o.system && o.probes == agent::Probes::kOff, "--system needs kernel probes: leave out --probes off",
                  error) ||
        reject_if(o.mount && beyond,
                  "--mount sees open, access, modify, close_write and close_nowrite only: leave out the other events",
                  error) ||
        reject_if(o.mount && (o.sync || o.wait || o.max_depth || o.max_subdirs),
                  "--mount watches a whole mount: leave out --sync, --wait, --max-depth and --max-subdirs", error) ||
        reject_if(o.pid && o.events && !(o.events & agent::kProcessEvents),
                  "--pid is about open, access, modify, close_write and close_nowrite: ask for one of them", error) ||
        reject_if(o.append && o.output.empty(), "--append is about a file: say which with -o FILE", error) ||
        reject_if(!o.recursive && (o.max_depth || o.max_subdirs), "--max-depth and --max-subdirs need --recursive",
                  error));
}

}  // namespace

bool parse_watch(int argc, char **argv, WatchOptions &options, std::string &error)
{
    const Getopt form = getopt_form();
    opterr = 0;
    optind = 0;  // starts a new scan
    int code;
    while ((code = getopt_long(argc, argv, form.letters.c_str(), form.options.data(), nullptr)) != -1) {
        const OptionRow *row = code == '?' || code == ':' ? nullptr : find_row(code);
        if (!row) {
            error = getopt_complaint(code, argv);
            return false;
        }
        if (!apply(*row, optarg, options, error))
            return false;
    }
    options.paths.assign(argv + optind, argv + argc);
    return options.answer != Answer::kNone || check_combination(options, error);
}

}  // namespace cli
