#include "json_writer.h"

#include <sys/utsname.h>

#include "agent/escape.h"
#include "agent/event_names.h"

namespace output
{

void put(JsonWriter &writer, std::string_view utf8)
{
    writer.String(utf8.data(), static_cast<rapidjson::SizeType>(utf8.size()));
}

void put_key(JsonWriter &writer, std::string_view key)
{
    writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

void put_bytes(JsonWriter &writer, std::string_view bytes)
{
    if (agent::is_utf8(bytes)) {
        put(writer, bytes);
        return;
    }
    std::string clean;
    agent::append_utf8(bytes, clean);
    put(writer, clean);
}

void put_text(JsonWriter &writer, std::string_view key, std::string_view bytes)
{
    put_key(writer, key);
    put_bytes(writer, bytes);
}

void put_known(JsonWriter &writer, std::string_view key, std::string_view bytes)
{
    if (!bytes.empty())
        put_text(writer, key, bytes);
}

void put_number(JsonWriter &writer, std::string_view key, uint64_t number)
{
    put_key(writer, key);
    writer.Uint64(number);
}

void put_true(JsonWriter &writer, std::string_view key, bool is_so)
{
    if (!is_so)
        return;
    put_key(writer, key);
    writer.Bool(true);
}

void put_path_bytes(JsonWriter &writer, std::string_view path, std::string_view key)
{
    if (agent::is_utf8(path))
        return;
    std::string base64;
    agent::append_base64(path, base64);
    put_key(writer, key);
    put(writer, base64);
}

void put_paths(JsonWriter &writer, std::string_view key, const std::vector<std::string> &paths)
{
    put_key(writer, key);
    writer.StartArray();
    for (const std::string &path : paths)
        put_bytes(writer, path);
    writer.EndArray();
}

void put_kinds(JsonWriter &writer, std::string_view key, uint32_t mask)
{
    put_key(writer, key);
    writer.StartArray();
    agent::for_each_event(mask, [&](std::string_view name) { put(writer, name); });
    writer.EndArray();
}

void JsonTime::put(JsonWriter &writer, std::string_view key, uint64_t ns)
{
    text_.clear();
    form_.append(ns, text_);
    put_key(writer, key);
    output::put(writer, text_);
}

void put_gap(JsonWriter &writer, const Unwatched &gap)
{
    JsonTime time;
    time.put(writer, "from", gap.from_ns);
    time.put(writer, "until", gap.until_ns);
    put_text(writer, "reason", gap.reason);
}

void put_ancestors(JsonWriter &writer, const agent::Ancestor *first, JsonTime &start)
{
    put_key(writer, "ancestors");
    writer.StartArray();
    for (const agent::Ancestor *each = first; each; each = each->parent.get()) {
        writer.StartObject();
        put_number(writer, "pid", each->pid);
        put_known(writer, "name", each->name);
        if (each->start_ns)
            start.put(writer, "start", each->start_ns);
        writer.EndObject();
    }
    writer.EndArray();
}

std::string_view container_of(const agent::Event &event)
{
    const bool reported = !event.container.empty() || !event.process;
    return reported ? event.container : std::string_view(event.process->container);
}

std::string host_of(const FormatStyle &style)
{
    struct utsname names = {};
    if (!style.host.empty() || uname(&names) != 0)
        return style.host;
    return names.nodename;
}

std::string_view instance_of(const FormatStyle &style, const agent::Event &event)
{
    if (!style.instance.empty() || event.source >= style.sources.size())
        return style.instance;
    return style.sources[event.source];
}

void JsonLine::finish(std::string &out) const
{
    const std::string_view line(buffer_.GetString(), buffer_.GetSize());
    if (terminal_)
        agent::append_json_safe(line, out);
    else
        out.append(line);
    out.push_back(end_);
}

}  // namespace output
