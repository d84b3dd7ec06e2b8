/* Records as lines of JSON; format.h. */

#include "agent/escape.h"
#include "file_facts.h"
#include "formats.h"
#include "json_writer.h"

namespace output
{

namespace
{

using Writer = JsonWriter;

// A path, and where it is not UTF-8 its bytes beside it.
void put_path(Writer &writer, std::string_view path, std::string_view key = "path")
{
    put_key(writer, key);
    if (agent::is_utf8(path))
        return put(writer, path);
    put_bytes(writer, path);
    put_path_bytes(writer, path, std::string(key) + "_bytes");
}

class JsonFormatter : public Formatter
{
public:
    explicit JsonFormatter(const FormatStyle &style) : style_(style), line_(style) {}

    bool wants_dir() const override { return true; }
    bool wants_file() const override { return style_.stat; }

    void event(const agent::Event &event, std::string &out) override
    {
        line_.append(out, [&](Writer &writer) {
            put_head(writer, "event", event.time_ns);
            put_kinds(writer, "events", event.mask);
            put_path(writer, event.path);
            if (!event.from.empty())
                put_path(writer, event.from, "from");
            put_true(writer, "dir", event.dir == agent::Known::kYes);
            if (style_.stat && event.file)
                put_file(writer, *event.file);
            put_true(writer, "deleted", event.deleted);
            put_true(writer, "found", event.found);
            put_number(writer, "pid", event.pid);
            put_process(writer, event.process);
            put_container(writer, event);
            put_text(writer, "instance", instance_of(style_, event));
            put_known(writer, "host", style_.host);
        });
    }

    void established(uint64_t time_ns, const agent::Established &all, std::string &out) override
    {
        record("established", time_ns, out, [&](Writer &writer) {
            put_paths(writer, "paths", all.paths);
            if (!all.missing.empty())
                put_paths(writer, "missing", all.missing);
            put_number(writer, "directories", all.directories);
            put_key(writer, "source");
            put(writer, all.source);
            if (all.left_out) {
                put_key(writer, "left_out");
                writer.Uint64(all.left_out);
            }
        });
    }

    void loss(uint64_t time_ns, std::string_view source, uint64_t count, std::string_view path,
              std::string &out) override
    {
        record("loss", time_ns, out, [&](Writer &writer) {
            put_key(writer, "source");
            put(writer, source);
            put_number(writer, "count", count);
            if (!path.empty())
                put_path(writer, path);
        });
    }

    void resynced(uint64_t time_ns, const std::vector<std::string> &paths, uint64_t directories,
                  std::string &out) override
    {
        record("resynced", time_ns, out, [&](Writer &writer) {
            put_paths(writer, "paths", paths);
            put_number(writer, "directories", directories);
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

    void burst(uint64_t time_ns, const Burst &burst, std::string &out) override
    {
        record("burst", time_ns, out, [&](Writer &writer) {
            put_kinds(writer, "events", burst.mask);
            put_path(writer, burst.directory);
            put_known(writer, "process", burst.process);
            put_key(writer, "count");
            writer.Uint64(burst.count);
            put_key(writer, "seconds");
            writer.Double(static_cast<double>(burst.ms) / 1000);
        });
    }

    void unwatched(uint64_t time_ns, const Unwatched &gap, std::string &out) override
    {
        record("unwatched", time_ns, out, [&](Writer &writer) { put_gap(writer, gap); });
    }

private:
    void put_head(Writer &writer, std::string_view type, uint64_t time_ns)
    {
        put_text(writer, "type", type);
        time_.put(writer, "time", time_ns);
    }

    template <typename Fields>
    void record(std::string_view type, uint64_t time_ns, std::string &out, Fields fields)
    {
        line_.append(out, [&](Writer &writer) {
            put_head(writer, type, time_ns);
            fields(writer);
            put_known(writer, "instance", style_.instance);
            put_known(writer, "host", style_.host);
        });
    }

    static void put_file(Writer &writer, const agent::Identity &file)
    {
        put_number(writer, "inode", file.ino);
        put_text(writer, "device", device_text(file));
        put_number(writer, "group", file.gid);
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
        put_number(writer, "ppid", process->ppid);
        if (process->start_ns)
            start_time_.put(writer, "start", process->start_ns);
        if (style_.ancestors)
            put_ancestors(writer, process->parent.get(), start_time_);
        writer.EndObject();
    }

    static void put_user(Writer &writer, std::string_view key, const std::optional<uint32_t> &user)
    {
        if (!user)
            return;
        put_key(writer, key);
        writer.Uint(*user);
    }

    void put_container(Writer &writer, const agent::Event &event) const
    {
        const std::string_view id = container_of(event);
        put_known(writer, "container", id);
        if (id.empty() || !style_.container_name)
            return;
        const agent::ContainerName known = style_.container_name(id);
        put_known(writer, "container_name", known.name);
        put_known(writer, "container_image", known.image);
    }

    const FormatStyle style_;
    JsonTime time_, start_time_;
    JsonLine line_;
};

}  // namespace

std::unique_ptr<Formatter> make_json_formatter(const FormatStyle &style)
{
    return std::make_unique<JsonFormatter>(style);
}

}  // namespace output
