/* Records as the Elastic Common Schema has them; format.h. What the schema has no field for is below "fmon". */

#include "activity.h"
#include "file_facts.h"
#include "formats.h"
#include "json_writer.h"

namespace output
{

namespace
{

constexpr char kSchemaVersion[] = "8.11.0";

/* What event.kind, event.type and event.category say of a record: null where there is none that fits. */
struct EcsClass {
    const char *kind, *type, *category;
};

constexpr EcsClass kLoss = {"pipeline_error", "error", nullptr}; /* data are missing */
constexpr EcsClass kState = {"state", "info", "file"};

class EcsFormatter : public Formatter
{
public:
    explicit EcsFormatter(const FormatStyle &style) : style_(style), host_(host_of(style)), line_(style) {}

    bool wants_dir() const override { return true; }
    bool wants_file() const override { return style_.stat; }

    void event(const agent::Event &event, std::string &out) override
    {
        const Activity &activity = main_activity(event.mask);
        const EcsClass what = {"event", activity.ecs_type, "file"};
        record(activity.action, what, event.time_ns, out, [&](JsonWriter &writer) {
            put_file(writer, event.path, &event);
            put_process(writer, event);
            put_container(writer, event);
            put_object(writer, "fmon", [&] { put_own(writer, event); });
        });
    }

    void established(uint64_t time_ns, const agent::Established &all, std::string &out) override
    {
        record("established", kState, time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "fmon", [&] {
                put_paths(writer, "paths", all.paths);
                if (!all.missing.empty())
                    put_paths(writer, "missing", all.missing);
                put_number(writer, "directories", all.directories);
                put_text(writer, "source", all.source);
            });
        });
    }

    void loss(uint64_t time_ns, std::string_view source, uint64_t count, std::string_view path,
              std::string &out) override
    {
        record("loss", kLoss, time_ns, out, [&](JsonWriter &writer) {
            if (!path.empty())
                put_file(writer, path);
            put_object(writer, "error", [&] { put_text(writer, "message", "lost: " + loss_text(source, count)); });
            put_object(writer, "fmon", [&] {
                put_text(writer, "source", source);
                put_number(writer, "count", count);
                put_path_bytes(writer, path);
            });
        });
    }

    void resynced(uint64_t time_ns, const std::vector<std::string> &paths, uint64_t directories,
                  std::string &out) override
    {
        record("resynced", kState, time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "fmon", [&] {
                put_paths(writer, "paths", paths);
                put_number(writer, "directories", directories);
            });
        });
    }

    void appeared(uint64_t time_ns, std::string_view path, std::string &out) override
    {
        record("appeared", kState, time_ns, out, [&](JsonWriter &writer) { put_named(writer, path, ""); });
    }

    void ended(uint64_t time_ns, std::string_view path, std::string_view reason, std::string &out) override
    {
        record("ended", kState, time_ns, out, [&](JsonWriter &writer) { put_named(writer, path, reason); });
    }

    void burst(uint64_t time_ns, const Burst &burst, std::string &out) override
    {
        record("burst", kState, time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "fmon", [&] {
                put_kinds(writer, "events", burst.mask);
                put_text(writer, "directory", burst.directory);
                put_text(writer, "process", burst.process);
                put_number(writer, "count", burst.count);
                put_number(writer, "milliseconds", burst.ms);
            });
        });
    }

    void unwatched(uint64_t time_ns, const Unwatched &gap, std::string &out) override
    {
        record("unwatched", kLoss, time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "error", [&] { put_text(writer, "message", "not watched: " + unwatched_text(gap)); });
            put_object(writer, "fmon", [&] { put_gap(writer, gap); });
        });
    }

private:
    template <typename Members>
    void record(const char *action, const EcsClass &what, uint64_t time_ns, std::string &out, Members members)
    {
        line_.append(out, [&](JsonWriter &writer) {
            time_.put(writer, "@timestamp", time_ns);
            put_object(writer, "ecs", [&] { put_text(writer, "version", kSchemaVersion); });
            put_object(writer, "event", [&] { put_class(writer, action, what); });
            if (!host_.empty())
                put_object(writer, "host", [&] { put_text(writer, "hostname", host_); });
            members(writer);
        });
    }

    static void put_list(JsonWriter &writer, std::string_view key, const char *only)
    {
        put_key(writer, key);
        writer.StartArray();
        put(writer, only);
        writer.EndArray();
    }

    static void put_class(JsonWriter &writer, const char *action, const EcsClass &what)
    {
        put_text(writer, "kind", what.kind);
        if (what.category)
            put_list(writer, "category", what.category);
        put_list(writer, "type", what.type);
        put_text(writer, "action", action);
        put_text(writer, "module", "fmon");
        put_text(writer, "dataset", "fmon.file");
    }

    void put_file(JsonWriter &writer, std::string_view path, const agent::Event *event = nullptr) const
    {
        const size_t slash = path.rfind('/');
        put_object(writer, "file", [&] {
            put_text(writer, "path", path);
            if (slash == std::string_view::npos)
                return;
            put_text(writer, "name", path.substr(slash + 1));
            put_text(writer, "directory", path.substr(0, slash ? slash : 1));
            if (event)
                put_facts(writer, *event);
        });
    }

    // The schema has numbers of files and groups as words.
    void put_facts(JsonWriter &writer, const agent::Event &event) const
    {
        const FileType type = type_of(event);
        if (type.ecs)
            put_text(writer, "type", type.ecs);
        if (!style_.stat || !event.file)
            return;
        put_text(writer, "inode", std::to_string(event.file->ino));
        put_text(writer, "gid", std::to_string(event.file->gid));
    }

    void put_named(JsonWriter &writer, std::string_view path, std::string_view reason) const
    {
        put_file(writer, path);
        put_object(writer, "fmon", [&] {
            put_known(writer, "reason", reason);
            put_path_bytes(writer, path);
        });
    }

    void put_process(JsonWriter &writer, const agent::Event &event)
    {
        if (event.pid == 0)
            return;
        const agent::ProcessInfo *const process = event.process;
        put_object(writer, "process", [&] {
            put_number(writer, "pid", event.pid);
            if (process)
                put_program(writer, *process);
        });
        if (process && process->uid)
            put_object(writer, "user", [&] { put_text(writer, "id", std::to_string(*process->uid)); });
    }

    void put_program(JsonWriter &writer, const agent::ProcessInfo &process)
    {
        put_known(writer, "name", process.name);
        put_known(writer, "executable", process.exe);
        put_known(writer, "command_line", process.cmdline);
        if (process.start_ns)
            start_time_.put(writer, "start", process.start_ns);
        put_object(writer, "parent", [&] {
            put_number(writer, "pid", process.ppid);
            if (style_.ancestors && process.parent)
                put_known(writer, "name", process.parent->name);
        });
    }

    void put_container(JsonWriter &writer, const agent::Event &event) const
    {
        const std::string_view id = container_of(event);
        if (id.empty())
            return;
        put_object(writer, "container", [&] {
            put_text(writer, "id", id);
            if (!style_.container_name)
                return;
            const agent::ContainerName known = style_.container_name(id);
            put_known(writer, "name", known.name);
            if (!known.image.empty())
                put_object(writer, "image", [&] { put_text(writer, "name", known.image); });
        });
    }

    void put_own(JsonWriter &writer, const agent::Event &event)
    {
        put_kinds(writer, "events", event.mask);
        put_true(writer, "deleted", event.deleted);
        put_true(writer, "found", event.found);
        put_path_bytes(writer, event.path);
        put_known(writer, "from", event.from);
        put_path_bytes(writer, event.from, "from_bytes");
        if (style_.stat && event.file)
            put_text(writer, "device", device_text(*event.file));
        if (event.process && event.process->loginuid)
            put_number(writer, "loginuid", *event.process->loginuid);
        if (style_.ancestors && event.process)
            put_ancestors(writer, event.process->parent.get(), start_time_);
        put_known(writer, "instance", instance_of(style_, event));
    }

    const FormatStyle style_;
    const std::string host_;
    JsonLine line_;
    JsonTime time_, start_time_;
};

}  // namespace

std::unique_ptr<Formatter> make_ecs_formatter(const FormatStyle &style)
{
    return std::make_unique<EcsFormatter>(style);
}

}  // namespace output
