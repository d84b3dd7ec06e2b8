/* Texts of the table; view.h. */

#include <cmath>
#include <cstdio>

#include "agent/event_names.h"
#include "agent/message.h"
#include "columns.h"
#include "view.h"

namespace cli
{

namespace
{

constexpr size_t kRate = 8, kTotal = 11, kAgo = 5, kKinds = 22, kAllKinds = 34, kWho = 18;
constexpr size_t kWide = 110, kRoomy = 150; /* from these widths on there is room for all columns, and for all kinds */

// 1234 events in 5 s: "246.8"; with a number in front of the point that has more digits: "1,234".
std::string rate_text(uint64_t events, uint64_t now_ms)
{
    const double rate = static_cast<double>(events) * 1000 / static_cast<double>(Window::span_ms(now_ms));
    if (rate >= 1000)
        return agent::with_commas(static_cast<uint64_t>(std::llround(rate)));
    char text[16];
    snprintf(text, sizeof text, "%.1f", rate);
    return text;
}

// "3s", "12m", "5h"; nothing for what is happening.
std::string ago_text(uint64_t ms)
{
    const uint64_t s = ms / 1000;
    return s < 1      ? "now"
           : s < 100  ? std::to_string(s) + "s"
           : s < 6000 ? std::to_string(s / 60) + "m"
                      : std::to_string(s / 3600) + "h";
}

struct Cells {
    std::string rate, total, ago, kinds, first, second;
};

bool names_first(By by) { return by == By::kProcess || by == By::kContainer; }

// Names end the line, so that a name may be as long as there is room; of a path the end says most.
std::string line_of(const Cells &cells, By by, size_t width)
{
    const size_t left = kRate + 1 + kTotal + 1;
    std::string line = fit_right(cells.rate, kRate) + " " + fit_right(cells.total, kTotal) + " ";
    const bool wide = width == 0 || width >= kWide;
    const size_t kinds = width == 0 || width >= kRoomy ? kAllKinds : kKinds;
    if (wide)
        line += fit_right(cells.ago, kAgo) + " " + fit(cells.kinds, kinds) + " ";
    const size_t begin = left + (wide ? kAgo + 1 + kinds + 1 : 0);
    if (width == 0)
        return line + fit(cells.first, kWho) + " " + cells.second;
    const size_t who = names_first(by) ? (width > begin + 2 * kWho ? kWho + 6 : kWho) : kWho;
    if (width <= begin + who + 1)
        return fit(line, width);
    return line + fit(cells.first, who) + " " + fit(cells.second, width - begin - who - 1, Keep::kEnd);
}

std::string name_text(const Row &row, By by)
{
    if (by == By::kContainer && row.name.empty())
        return "(none)";
    return printable(row.name) + (!row.rest ? "" : row.name == "/" ? "(others)" : "/(others)");
}

}  // namespace

const char *name_of(By by)
{
    constexpr const char *kNames[] = {"files", "directories", "processes", "containers"};
    return kNames[static_cast<size_t>(by)];
}

const char *name_of(Sort sort)
{
    constexpr const char *kNames[] = {"rate", "total", "latest", "name"};
    return kNames[static_cast<size_t>(sort)];
}

std::string heading_text(By by, size_t width)
{
    Cells cells = {"EV/S", "EVENTS", "AGO", "KINDS", "PROCESS", by == By::kFile ? "FILE" : "DIRECTORY"};
    if (by == By::kContainer) {
        cells.first = "CONTAINER";
        cells.second = "BUSIEST PROCESS";
    } else if (by == By::kProcess) {
        cells.second = "BUSIEST DIRECTORY";
    }
    return line_of(cells, by, width);
}

std::string row_text(const Row &row, By by, uint64_t now_ms, size_t width)
{
    const std::string name = name_text(row, by), companion = printable(row.companion);
    const bool first = names_first(by);
    return line_of({rate_text(row.recent, now_ms), agent::with_commas(row.total), ago_text(now_ms - row.latest_ms),
                    agent::events_text(row.mask), first ? name : companion, first ? companion : name},
                   by, width);
}

std::string title_text(const Seen &seen)
{
    const uint64_t s = seen.now_ms / 1000;
    char up[32];
    snprintf(up, sizeof up, "%llu:%02llu:%02llu", static_cast<unsigned long long>(s / 3600),
             static_cast<unsigned long long>(s / 60 % 60), static_cast<unsigned long long>(s % 60));
    return "fmon top  " + seen.clock + "  up " + up + "  " + printable(seen.status.what);
}

std::string events_text(const Seen &seen)
{
    std::string text =
        "events   " + rate_text(seen.recent, seen.now_ms) + "/s, " + agent::with_commas(seen.total) + " in all";
    if (!seen.status.source.empty())
        text += "; from " + seen.status.source;
    if (seen.status.directories)
        text += ", " + agent::counted(seen.status.directories, "directory");
    return text;
}

std::string kinds_text(const Seen &seen)
{
    std::string text;
    for (const Kind &kind : seen.kinds)
        text += (text.empty() ? "" : ", ") + std::string(kind.name) + " " + rate_text(kind.recent, seen.now_ms);
    return "kinds/s  " + (text.empty() ? "none" : text);
}

std::string losses_text(const Seen &seen)
{
    std::string text;
    for (const auto &[source, count] : seen.status.losses)
        text += (text.empty() ? "" : ", ") + source + " " + agent::with_commas(count);
    return "losses   " + (text.empty() ? "none" : text);
}

}  // namespace cli
