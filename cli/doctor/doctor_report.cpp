/* What the doctor prints, as text and as JSON, and its status; doctor.h. */

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
