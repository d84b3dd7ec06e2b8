/* Events as rows of CSV; format.h. */

#include <string>

#include "agent/escape.h"
#include "agent/event_names.h"
#include "formats.h"
#include "record_time.h"

namespace output
{

namespace
{

/* time,events,path,pid,process: lines end in "\n" alone, as other tools here have it. */
class CsvFormatter : public Formatter
{
public:
    explicit CsvFormatter(const FormatStyle &style)
        : end_(style.end), terminal_(style.terminal), pairs_(style.pairs), time_(style.time_format)
    {
    }

    void begin(std::string &out) override
    {
        out.append("time,events,path,pid,process").append(pairs_ ? ",from" : "");
        out.push_back(end_);
    }

    void event(const agent::Event &event, std::string &out) override
    {
        append_time(event.time_ns, out);
        out.push_back(',');
        agent::append_csv(agent::events_text(event.mask), out);
        out.push_back(',');
        append_field(event.path, out);
        out.push_back(',');
        out.append(std::to_string(event.pid));
        out.push_back(',');
        if (event.process)
            append_field(event.process->name, out);
        else if (event.found)
            out.append("(found)");
        if (pairs_) {
            out.push_back(',');
            append_field(event.from, out);
        }
        out.push_back(end_);
    }

    void loss(uint64_t time_ns, std::string_view source, uint64_t count, std::string_view path,
              std::string &out) override
    {
        append_record(time_ns, "loss", path, loss_text(source, count), out);
    }

    void resynced(uint64_t time_ns, const std::vector<std::string> &paths, uint64_t directories,
                  std::string &out) override
    {
        append_record(time_ns, "resynced", single_path(paths), resynced_text(directories), out);
    }

    void burst(uint64_t time_ns, const Burst &burst, std::string &out) override
    {
        append_record(time_ns, "burst", burst.directory, burst_text(burst), out);
    }

    void unwatched(uint64_t time_ns, const Unwatched &gap, std::string &out) override
    {
        append_record(time_ns, "unwatched", "", unwatched_text(gap), out);
    }

private:
    // The columns of an event that nobody caused: what there is to say stands where the process would.
    void append_record(uint64_t time_ns, std::string_view kind, std::string_view path, const std::string &text,
                       std::string &out)
    {
        append_time(time_ns, out);
        out.append(",").append(kind).append(",");
        append_field(path, out);
        out.append(",0,");
        append_field(text, out);
        out.append(pairs_ ? "," : "").push_back(end_);
    }

    // A format of the user's may have commas in it.
    void append_time(uint64_t time_ns, std::string &out)
    {
        if (!time_.is_formatted())
            return time_.append(time_ns, out);
        time_text_.clear();
        time_.append(time_ns, time_text_);
        append_field(time_text_, out);
    }

    void append_field(std::string_view bytes, std::string &out) const
    {
        if (terminal_)
            agent::append_csv(agent::escaped(bytes), out);
        else
            agent::append_csv(bytes, out);
    }

    const char end_;
    const bool terminal_, pairs_;
    RecordTime<agent::UtcTime> time_;
    std::string time_text_;
};

}  // namespace

std::unique_ptr<Formatter> make_csv_formatter(const FormatStyle &style)
{
    return std::make_unique<CsvFormatter>(style);
}

}  // namespace output
