/* Records as lines of JSON; format.h. */

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "agent/escape.h"
#include "agent/event_names.h"
#include "agent/time_format.h"
#include "formats.h"

namespace output
{

namespace
{

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void put(Writer &writer, std::string_view text)
{
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void put_key(Writer &writer, std::string_view key)
{
    writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

void put_bytes(Writer &writer, std::string_view bytes)
{
    if (agent::is_utf8(bytes)) {
        put(writer, bytes);
        return;
    }
    std::string clean;
    agent::append_utf8(bytes, clean);
    put(writer, clean);
}

// The path, and where it is not UTF-8 its bytes beside it, without which the file could not be found.
void put_path(Writer &writer, std::string_view path)
{
    put_key(writer, "path");
    if (agent::is_utf8(path)) {
        put(writer, path);
        return;
    }
    put_bytes(writer, path);
    std::string base64;
    agent::append_base64(path, base64);
    put_key(writer, "path_bytes");
    put(writer, base64);
}

class JsonFormatter : public Formatter
{
public:
    explicit JsonFormatter(const FormatStyle &style)
        : end_(style.end),
          terminal_(style.terminal),
          ancestors_(style.ancestors),
          sources_(style.sources),
          container_name_(style.container_name)
    {
    }

    void event(const agent::Event &event, std::string &out) override
    {
        record("event", event.time_ns, out, [&](Writer &writer) {
            put_kinds(writer, event.mask);
            put_path(writer, event.path);
            if (event.deleted) {
                put_key(writer, "deleted");
                writer.Bool(true);
            }
            if (event.found) {
                put_key(writer, "found");
                writer.Bool(true);
            }
            put_key(writer, "pid");
            writer.Uint(event.pid);
            put_process(writer, event.process);
            put_container(writer, event);
            put_key(writer, "instance");
            put(writer, event.source < sources_.size() ? sources_[event.source] : "");
        });
    }

    void established(uint64_t time_ns, const agent::Established &all, std::string &out) override
    {
        record("established", time_ns, out, [&](Writer &writer) {
            put_paths(writer, "paths", all.paths);
            if (!all.missing.empty())
                put_paths(writer, "missing", all.missing);
            put_key(writer, "directories");
            writer.Uint64(all.directories);
            put_key(writer, "source");
            put(writer, all.source);
        });
    }

    void loss(uint64_t time_ns, std::string_view source, uint64_t count, std::string_view path,
              std::string &out) override
    {
        record("loss", time_ns, out, [&](Writer &writer) {
            put_key(writer, "source");
            put(writer, source);
            put_key(writer, "count");
            writer.Uint64(count);
            if (!path.empty())
                put_path(writer, path);
        });
    }

    void resynced(uint64_t time_ns, const std::vector<std::string> &paths, uint64_t directories,
                  std::string &out) override
    {
        record("resynced", time_ns, out, [&](Writer &writer) {
            put_paths(writer, "paths", paths);
            put_key(writer, "directories");
            writer.Uint64(directories);
        });
    }

    void appeared(uint64_t time_ns, std::string_view path, std::string &out) override
    {
        record("appeared", time_ns, out, [&](Writer &writer) { put_path(writer, path); });
    }

    void ended(uint64_t time_ns, std::string_view path, std::string_view reason, std::string &out) override
    {
        record("ended", time_ns, out, [&](Writer &writer) {
            put_path(writer, path);
            put_key(writer, "reason");
            put(writer, reason);
        });
    }

private:
    template <typename Fields>
    void record(std::string_view type, uint64_t time_ns, std::string &out, Fields fields)
    {
        line_.Clear();
        writer_.Reset(line_);
        Writer &writer = writer_;
        writer.StartObject();
        put_key(writer, "type");
        put(writer, type);
        put_key(writer, "time");
        time_text_.clear();
        time_.append(time_ns, time_text_);
        put(writer, time_text_);
        fields(writer);
        writer.EndObject();
        const std::string_view line(line_.GetString(), line_.GetSize());
        if (terminal_)
            agent::append_json_safe(line, out);
        else
            out.append(line);
        out.push_back(end_);
    }

    static void put_paths(Writer &writer, std::string_view key, const std::vector<std::string> &paths)
    {
        put_key(writer, key);
        writer.StartArray();
        for (const std::string &path : paths)
            put_bytes(writer, path);
        writer.EndArray();
    }

    static void put_kinds(Writer &writer, uint32_t mask)
    {
        put_key(writer, "events");
        writer.StartArray();
        agent::for_each_event(mask, [&](std::string_view name) { put(writer, name); });
        writer.EndArray();
    }

    void put_process(Writer &writer, const agent::ProcessInfo *process)
    {
        if (!process)
            return;
        put_key(writer, "process");
        writer.StartObject();
        put_known(writer, "name", process->name);
        put_known(writer, "exe", process->exe);
        put_known(writer, "cmdline", process->cmdline);
        put_user(writer, "uid", process->uid);
        put_user(writer, "loginuid", process->loginuid);
        put_key(writer, "ppid");
        writer.Uint(process->ppid);
        put_start(writer, process->start_ns);
        if (ancestors_)
            put_ancestors(writer, process->parent.get());
        writer.EndObject();
    }

    static void put_user(Writer &writer, std::string_view key, const std::optional<uint32_t> &user)
    {
        if (!user)
            return;
        put_key(writer, key);
        writer.Uint(*user);
    }

    void put_start(Writer &writer, uint64_t start_ns)
    {
        if (start_ns == 0)
            return;
        put_key(writer, "start");
        time_text_.clear();
        start_time_.append(start_ns, time_text_);
        put(writer, time_text_);
    }

    void put_ancestors(Writer &writer, const agent::Ancestor *each)
    {
        put_key(writer, "ancestors");
        writer.StartArray();
        for (; each; each = each->parent.get()) {
            writer.StartObject();
            put_key(writer, "pid");
            writer.Uint(each->pid);
            put_known(writer, "name", each->name);
            put_start(writer, each->start_ns);
            writer.EndObject();
        }
        writer.EndArray();
    }

    static void put_known(Writer &writer, std::string_view key, std::string_view text)
    {
        if (text.empty())
            return;
        put_key(writer, key);
        put_bytes(writer, text);
    }

    // The mount's, as the monitor reports it inside a container; elsewhere that of the process.
    void put_container(Writer &writer, const agent::Event &event) const
    {
        const bool reported = !event.container.empty() || !event.process;
        const std::string_view id = reported ? event.container : std::string_view(event.process->container);
        put_known(writer, "container", id);
        if (id.empty() || !container_name_)
            return;
        const agent::ContainerName known = container_name_(id);
        put_known(writer, "container_name", known.name);
        put_known(writer, "container_image", known.image);
    }

    const char end_;
    const bool terminal_, ancestors_;
    const std::vector<std::string> sources_;
    const std::function<agent::ContainerName(std::string_view)> container_name_;
    agent::UtcTime time_, start_time_;
    std::string time_text_;
    rapidjson::StringBuffer line_;
    Writer writer_;
};

}  // namespace

std::unique_ptr<Formatter> make_json_formatter(const FormatStyle &style)
{
    return std::make_unique<JsonFormatter>(style);
}

}  // namespace output
