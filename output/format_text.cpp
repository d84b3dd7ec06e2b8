/* Records for reading, in columns; format.h. */

#include <algorithm>
#include <charconv>

#include "agent/escape.h"
#include "agent/event_names.h"
#include "formats.h"
#include "orx_fmon.h"
#include "record_time.h"

namespace output
{

namespace
{

constexpr size_t kEventsWidth = 24;
constexpr size_t kMaxPathWidth = 72; /* a longer path pushes its own process aside, not everybody's */

const char *event_colour(uint32_t mask)
{
    if (mask & (FMON_DELETE | FMON_DELETE_SELF))
        return "\033[31m";
    if (mask & (FMON_CREATE | FMON_MOVED_TO))
        return "\033[32m";
    if (mask & (FMON_MOVED_FROM | FMON_MOVE_SELF))
        return "\033[35m";
    if (mask & (FMON_MODIFY | FMON_CLOSE_WRITE))
        return "\033[33m";
    return "\033[36m";
}

// Columns that a text takes on a terminal, near enough: continuation bytes take none.
size_t columns(std::string_view text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

/* time, events, path, process[pid]. */
class TextFormatter : public Formatter
{
public:
    explicit TextFormatter(const FormatStyle &style)
        : end_(style.end), colours_(style.colours), ancestors_(style.ancestors), time_(style.time_format)
    {
    }

    void event(const agent::Event &event, std::string &out) override
    {
        append_time(event.time_ns, out);
        append_kinds(
            event_colour(event.mask), [&] { agent::append_events(event.mask, ",", out); }, out);
        append_path(event, out);
        out.push_back(end_);
    }

    void loss(uint64_t time_ns, std::string_view source, uint64_t count, std::string_view path,
              std::string &out) override
    {
        append_record(time_ns, "\033[31m", "loss", path, loss_text(source, count), out);
    }

    void resynced(uint64_t time_ns, const std::vector<std::string> &paths, uint64_t directories,
                  std::string &out) override
    {
        append_record(time_ns, "\033[32m", "resynced", single_path(paths), resynced_text(directories), out);
    }

    void burst(uint64_t time_ns, const Burst &burst, std::string &out) override
    {
        append_record(time_ns, "\033[33m", "burst", burst.directory, burst_text(burst), out);
    }

    void unwatched(uint64_t time_ns, const Unwatched &gap, std::string &out) override
    {
        append_record(time_ns, "\033[31m", "unwatched", "", unwatched_text(gap), out);
    }

private:
    // What there is to say stands where the process would, and alone where there is no path.
    void append_record(uint64_t time_ns, const char *sequence, std::string_view kind, std::string_view path,
                       const std::string &text, std::string &out)
    {
        append_time(time_ns, out);
        append_kinds(
            sequence, [&] { out.append(kind); }, out);
        if (!path.empty()) {
            agent::append_escaped(path, out);
            out.append("  ");
        }
        agent::append_escaped(text, out);
        out.push_back(end_);
    }

    void colour(const char *sequence, std::string &out) const
    {
        if (colours_)
            out.append(sequence);
    }

    void append_time(uint64_t time_ns, std::string &out)
    {
        colour("\033[2m", out);
        time_.append(time_ns, out);
        colour("\033[0m", out);
        out.push_back(' ');
    }

    template <typename Kinds>
    void append_kinds(const char *sequence, Kinds append, std::string &out) const
    {
        colour(sequence, out);
        const size_t start = out.size();
        append();
        const size_t width = out.size() - start;
        colour("\033[0m", out);
        out.append(width < kEventsWidth ? kEventsWidth - width : 0, ' ');
        out.push_back(' ');
    }

    void append_path(const agent::Event &event, std::string &out)
    {
        const size_t start = out.size();
        agent::append_escaped(event.path, out);
        if (event.deleted)
            out.append(" (deleted)");
        if (event.found)
            out.append(" (found)");
        if (!event.from.empty()) {
            out.append(" (from ");
            agent::append_escaped(event.from, out);
            out.push_back(')');
        }
        if (event.pid == 0)
            return;
        const size_t width = columns(std::string_view(out).substr(start));
        path_width_ = std::max(path_width_, std::min(width, kMaxPathWidth));
        if (width < path_width_)
            out.append(path_width_ - width, ' ');
        out.append("  ");
        append_process(event, out);
    }

    void append_process(const agent::Event &event, std::string &out) const
    {
        colour("\033[36m", out);
        if (event.process && !event.process->name.empty())
            agent::append_escaped(event.process->name, out);
        else
            out.push_back('?');
        char pid[16];
        out.push_back('[');
        out.append(pid, std::to_chars(pid, pid + sizeof pid, event.pid).ptr);
        out.push_back(']');
        colour("\033[0m", out);
        if (ancestors_ && event.process && event.process->parent) {
            out.append(" < ");
            agent::append_ancestors(event.process->parent, agent::append_escaped, out);
        }
    }

    const char end_;
    const bool colours_, ancestors_;
    RecordTime<agent::LocalTime> time_;
    size_t path_width_ = 0; /* the widest so far, so that processes stand below each other */
};

}  // namespace

std::unique_ptr<Formatter> make_text_formatter(const FormatStyle &style)
{
    return std::make_unique<TextFormatter>(style);
}

}  // namespace output
