#include "bus_text.h"

#include <algorithm>
#include <cctype>

#include "agent/event_names.h"
#include "output/json_writer.h"

namespace output
{

namespace
{

/* From what says most to what says least. */
constexpr std::string_view kKinds[] = {"delete",        "delete_self", "moved_from",  "moved_to", "move_self",
                                       "create",        "link",        "close_write", "modify",   "attrib",
                                       "close_nowrite", "open",        "access"};

std::string safe_value(std::string_view value, bool dots)
{
    std::string out(value);
    for (char &c : out)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && !(dots && c == '.'))
            c = '_';
    return out.empty() ? "_" : out;
}

template <typename Fields>
std::string line_of(const char *type, const Origin &origin, uint64_t time_ns, Fields fields)
{
    rapidjson::StringBuffer line;
    JsonWriter writer(line);
    writer.StartObject();
    put_text(writer, "type", type);
    JsonTime().put(writer, "time", time_ns);
    fields(writer);
    put_text(writer, "instance", origin.instance);
    put_text(writer, "host", origin.host);
    put_text(writer, "boot", origin.boot);
    writer.EndObject();
    return {line.GetString(), line.GetSize()};
}

}  // namespace

std::string_view bus_kind(const Record &record)
{
    if (!record.event)
        return record.type;
    const std::string_view *best = std::end(kKinds);
    agent::for_each_event(record.event->mask, [&](std::string_view name) {
        best = std::min(best, std::find(std::begin(kKinds), std::end(kKinds), name));
    });
    return best == std::end(kKinds) ? record.type : *best;
}

bool SubjectTemplate::add_name(std::string_view name, std::string &error)
{
    static constexpr struct {
        std::string_view name;
        Part part;
    } kNames[] = {{"host", Part::kHost}, {"instance", Part::kInstance}, {"kind", Part::kKind}};
    for (const auto &row : kNames) {
        if (row.name != name)
            continue;
        pieces_.push_back({row.part, {}});
        return true;
    }
    error = "{" + std::string(name) + "} is not known: {host}, {instance} and {kind} are";
    return false;
}

bool SubjectTemplate::parse(std::string_view text, bool dots, std::string &error)
{
    pieces_.clear();
    dots_ = dots;
    if (text.empty())
        error = "is empty";
    while (!text.empty()) {
        const size_t open = std::min(text.find('{'), text.size());
        if (open > 0)
            pieces_.push_back({Part::kText, std::string(text.substr(0, open))});
        text.remove_prefix(open);
        if (text.empty())
            break;
        const size_t close = text.find('}');
        if (close == text.npos) {
            error = "a \"{\" has no \"}\"";
            return false;
        }
        if (!add_name(text.substr(1, close - 1), error))
            return false;
        text.remove_prefix(close + 1);
    }
    return !pieces_.empty();
}

std::string SubjectTemplate::make(std::string_view host, std::string_view instance, std::string_view kind) const
{
    std::string out;
    for (const Piece &piece : pieces_) {
        switch (piece.part) {
            case Part::kText:
                out += piece.text;
                break;
            case Part::kHost:
                out += safe_value(host, dots_);
                break;
            case Part::kInstance:
                out += safe_value(instance, dots_);
                break;
            case Part::kKind:
                out += safe_value(kind, dots_);
                break;
        }
    }
    return out;
}

std::string bus_id(const SpoolEntry &entry)
{
    return *entry.origin + (entry.own ? ":o" : ":") + std::to_string(entry.number);
}

std::string heartbeat_text(const Origin &origin, uint64_t time_ns, const BusFigures &figures)
{
    return line_of("heartbeat", origin, time_ns, [&](JsonWriter &writer) {
        put_number(writer, "accepted", figures.accepted);
        put_number(writer, "acknowledged", figures.acknowledged);
        put_number(writer, "dropped", figures.dropped);
        put_number(writer, "waiting", figures.waiting);
        put_number(writer, "losses", figures.losses);
        put_number(writer, "spool_bytes", figures.spool_bytes);
    });
}

std::string dropped_text(const Origin &origin, uint64_t time_ns, uint64_t count, uint64_t total)
{
    return line_of("loss", origin, time_ns, [&](JsonWriter &writer) {
        put_text(writer, "source", "output");
        put_number(writer, "count", count);
        put_number(writer, "total", total);
    });
}

}  // namespace output
