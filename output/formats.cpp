#include "formats.h"

#include <cstdio>

#include "agent/event_names.h"
#include "agent/message.h"
#include "agent/time_format.h"

namespace output
{

const FormatRow *find_format(std::string_view name)
{
    for (const FormatRow &row : kFormats)
        if (name == row.name)
            return &row;
    return nullptr;
}

std::string format_names(const char *separator)
{
    std::string names;
    for (const FormatRow &row : kFormats)
        names += (names.empty() ? "" : separator) + std::string(row.name);
    return names;
}

bool asks_for(const std::string &format, char directive)
{
    for (size_t at = format.find('%'); at != std::string::npos; at = format.find('%', at + 2))
        if (at + 1 < format.size() && format[at + 1] == directive)
            return true;
    return false;
}

std::unique_ptr<Formatter> make_formatter(const std::string &format, const FormatStyle &style, std::string &error)
{
    const FormatRow *row = find_format(format);
    return row ? row->make(style) : make_template_formatter(style, format, error);
}

std::string burst_text(const Burst &burst)
{
    char seconds[32];
    snprintf(seconds, sizeof seconds, "%.3g", static_cast<double>(burst.ms) / 1000);
    return agent::with_commas(burst.count) + " more like this in " + seconds + " s: " + agent::events_text(burst.mask) +
           (burst.process.empty() ? "" : " by " + burst.process);
}

std::string unwatched_text(const Unwatched &gap)
{
    agent::UtcTime time;
    std::string text = gap.reason + ", from ";
    time.append(gap.from_ns, text);
    text += " until ";
    time.append(gap.until_ns, text);
    return text;
}

}  // namespace output
