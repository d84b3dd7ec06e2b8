#include <getopt.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>

#include "agent/escape.h"
#include "agent/message.h"
#include "agent/time_format.h"
#include "doctor.h"

namespace cli
{

namespace
{

constexpr char kHelp[] =
    R"(Usage: fmon doctor [OPTION]...

Tells what of fmon works on this machine and what does not, with a remedy: the installation, the kernel, rights,
inotify and fanotify with their limits and how much of them is used, kernel probes, containers, and mounted file systems
that do not report everything. One line each: "ok", "warn" (it works, with this limit) or "no". Changes nothing on the machine.
Other users' watches are counted as root only.

Options:
  -f, --format FORM       text (usual) or json: one object a line
  -h, --help              this text

Examples:
  fmon doctor                              the whole report
  sudo fmon doctor | grep -v '^ok'         only what could be better
  fmon doctor --format json                for programs

Status: 0 nothing is missing that root could have on this machine; 1 something is; 2 wrong usage.
)";

const struct option kLongOptions[] = {
    {"format", required_argument, nullptr, 'f'}, {"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};

bool take_option(int code, char **argv, DoctorOptions &options, std::string &error)
{
    if (code == 'h') {
        options.help = true;
    } else if (code == ':') {
        error = "--format needs a value";
    } else if (code == 'f') {
        const std::string_view value = optarg;
        options.json = value == "json";
        if (!options.json && value != "text")
            error = "--format takes text or json, not '" + std::string(value) + "'";
    } else {
        error = std::string("unknown option '") +
                (optopt ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1])) +
                "': see fmon doctor --help";
    }
    return error.empty();
}

std::string title(const Check &check) { return std::string(check.section) + " " + check.name; }

constexpr const char *kStateColours[] = {"\033[32m", "\033[33m", "\033[31m"};
constexpr char kNoColour[] = "\033[0m";

std::string line_of(const Check &check, size_t width, bool colours)
{
    std::string state = state_name(check.state), name = title(check);
    const size_t blanks = 6 - state.size();
    if (colours)
        state = kStateColours[static_cast<int>(check.state)] + state + kNoColour;
    name.resize(width + 2, ' ');
    std::string line = state + std::string(blanks, ' ') + name;
    agent::append_safe(check.text + (check.remedy.empty() ? "" : ": " + check.remedy), line);
    return line + "\n";
}

}  // namespace

const char *state_name(State state)
{
    constexpr const char *kNames[] = {"ok", "warn", "no"};
    return kNames[static_cast<int>(state)];
}

bool parse_doctor(int argc, char **argv, DoctorOptions &options, std::string &error)
{
    opterr = 0;
    optind = 0;  // starts a new scan
    int code;
    while ((code = getopt_long(argc, argv, ":f:h", kLongOptions, nullptr)) != -1)
        if (!take_option(code, argv, options, error))
            return false;
    if (optind < argc && !options.help)
        error = std::string("doctor takes no argument, such as '") + argv[optind] + "'";
    return error.empty();
}

std::string doctor_help() { return kHelp; }

std::string doctor_text(const Checks &checks, bool colours)
{
    size_t width = 0;
    for (const Check &check : checks)
        width = std::max(width, title(check).size());
    std::string text;
    for (const Check &check : checks)
        text += line_of(check, width, colours);
    return text;
}

std::string doctor_json(const Checks &checks, uint64_t time_ns)
{
    std::string lines, time;
    agent::UtcTime().append(time_ns, time);
    for (const Check &check : checks) {
        rapidjson::StringBuffer line;
        rapidjson::Writer writer(line);
        const auto put = [&](const char *key, std::string_view value) {
            std::string clean;
            agent::append_utf8(value, clean);
            writer.Key(key);
            writer.String(clean.data(), static_cast<rapidjson::SizeType>(clean.size()));
        };
        writer.StartObject();
        put("type", "check");
        put("time", time);
        put("section", check.section);
        put("name", check.name);
        put("state", state_name(check.state));
        put("text", check.text);
        if (!check.remedy.empty())
            put("remedy", check.remedy);
        writer.Key("reachable");
        writer.Bool(check.reachable);
        writer.EndObject();
        lines += std::string(line.GetString(), line.GetSize()) + "\n";
    }
    return lines;
}

int doctor_status(const Checks &checks)
{
    const auto is_missing = [](const Check &check) { return check.state == State::kNo && check.reachable; };
    return std::any_of(checks.begin(), checks.end(), is_missing) ? agent::kNothing : agent::kDone;
}

}  // namespace cli
