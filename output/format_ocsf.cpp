/* Records as the Open Cybersecurity Schema Framework has them: events of files in its class File System Activity, all
 * others in its base class; format.h. What the schema has no attribute for is in "unmapped". */

#include "activity.h"
#include "file_facts.h"
#include "formats.h"
#include "json_writer.h"

namespace output
{

namespace
{

constexpr char kSchemaVersion[] = "1.3.0";

/* What classifies a record. */
struct OcsfClass {
    int category, uid;
    const char *name;
    int activity;
    const char *activity_name;
    int severity;
};

enum : int { kInformational = 1, kMedium = 3, kOther = 99 };
enum : int { kUnknownFile = 0, kUnknownDevice = 0 };

OcsfClass beside_events(const char *type, int severity) { return {0, 0, "Base Event", kOther, type, severity}; }

class OcsfFormatter : public Formatter
{
public:
    explicit OcsfFormatter(const FormatStyle &style) : style_(style), host_(host_of(style)), line_(style) {}

    bool wants_dir() const override { return true; }
    bool wants_file() const override { return style_.stat; }

    void event(const agent::Event &event, std::string &out) override
    {
        const Activity &activity = main_activity(event.mask);
        const OcsfClass what = {1, 1001, "File System Activity", activity.ocsf_id, activity.ocsf_name, kInformational};
        record(what, event.time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "actor", [&] { put_actor(writer, event); });
            put_file(writer, event.path, type_of(event).ocsf);
            put_object(writer, "unmapped", [&] { put_unmapped(writer, event); });
        });
    }

    void established(uint64_t time_ns, const agent::Established &all, std::string &out) override
    {
        record(beside_events("established", kInformational), time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "unmapped", [&] {
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
        record(beside_events("loss", kMedium), time_ns, out, [&](JsonWriter &writer) {
            put_text(writer, "message", "lost: " + loss_text(source, count));
            put_object(writer, "unmapped", [&] {
                put_text(writer, "source", source);
                put_number(writer, "count", count);
                put_known_path(writer, path);
            });
        });
    }

    void resynced(uint64_t time_ns, const std::vector<std::string> &paths, uint64_t directories,
                  std::string &out) override
    {
        record(beside_events("resynced", kInformational), time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "unmapped", [&] {
                put_paths(writer, "paths", paths);
                put_number(writer, "directories", directories);
            });
        });
    }

    void appeared(uint64_t time_ns, std::string_view path, std::string &out) override
    {
        record(beside_events("appeared", kInformational), time_ns, out,
               [&](JsonWriter &writer) { put_object(writer, "unmapped", [&] { put_known_path(writer, path); }); });
    }

    void ended(uint64_t time_ns, std::string_view path, std::string_view reason, std::string &out) override
    {
        record(beside_events("ended", kInformational), time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "unmapped", [&] {
                put_known_path(writer, path);
                put_text(writer, "reason", reason);
            });
        });
    }

    void burst(uint64_t time_ns, const Burst &burst, std::string &out) override
    {
        record(beside_events("burst", kInformational), time_ns, out, [&](JsonWriter &writer) {
            put_object(writer, "unmapped", [&] {
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
        record(beside_events("unwatched", kMedium), time_ns, out, [&](JsonWriter &writer) {
            put_text(writer, "message", "not watched: " + unwatched_text(gap));
            put_object(writer, "unmapped", [&] { put_gap(writer, gap); });
        });
    }

private:
    template <typename Members>
    void record(const OcsfClass &what, uint64_t time_ns, std::string &out, Members members)
    {
        line_.append(out, [&](JsonWriter &writer) {
            put_milliseconds(writer, "time", time_ns);
            put_class(writer, what);
            put_object(writer, "metadata", [&] { put_metadata(writer); });
            put_object(writer, "device", [&] {
                put_number(writer, "type_id", kUnknownDevice);
                put_known(writer, "hostname", host_);
            });
            members(writer);
        });
    }

    static void put_milliseconds(JsonWriter &writer, std::string_view key, uint64_t ns)
    {
        put_number(writer, key, ns / 1'000'000);
    }

    static void put_class(JsonWriter &writer, const OcsfClass &what)
    {
        put_number(writer, "category_uid", static_cast<uint64_t>(what.category));
        put_number(writer, "class_uid", static_cast<uint64_t>(what.uid));
        put_text(writer, "class_name", what.name);
        put_number(writer, "activity_id", static_cast<uint64_t>(what.activity));
        put_text(writer, "activity_name", what.activity_name);
        put_number(writer, "type_uid", static_cast<uint64_t>(what.uid) * 100 + static_cast<uint64_t>(what.activity));
        put_number(writer, "severity_id", static_cast<uint64_t>(what.severity));
    }

    static void put_metadata(JsonWriter &writer)
    {
        put_text(writer, "version", kSchemaVersion);
        put_object(writer, "product", [&] {
            put_text(writer, "name", "fmon");
            put_text(writer, "vendor_name", "fmon");
        });
        put_key(writer, "profiles");
        writer.StartArray();
        for (const char *profile : {"container", "host"})
            put(writer, profile);
        writer.EndArray();
    }

    static void put_file(JsonWriter &writer, std::string_view path, int type)
    {
        const size_t slash = path.rfind('/');
        const bool has_folder = slash != std::string_view::npos && path.size() > 1;
        put_object(writer, "file", [&] {
            put_text(writer, "name", has_folder ? path.substr(slash + 1) : path);
            put_text(writer, "path", path);
            if (has_folder)
                put_text(writer, "parent_folder", path.substr(0, slash ? slash : 1));
            put_number(writer, "type_id", static_cast<uint64_t>(type));
        });
    }

    static void put_known_path(JsonWriter &writer, std::string_view path)
    {
        put_known(writer, "path", path);
        put_path_bytes(writer, path);
    }

    // An actor has a process, and a process a pid: 0 where it is not known.
    void put_actor(JsonWriter &writer, const agent::Event &event)
    {
        put_object(writer, "process", [&] {
            put_number(writer, "pid", event.pid);
            if (event.process)
                put_program(writer, *event.process);
            put_container(writer, event);
        });
    }

    void put_program(JsonWriter &writer, const agent::ProcessInfo &process) const
    {
        put_known(writer, "name", process.name);
        put_known(writer, "cmd_line", process.cmdline);
        if (process.start_ns)
            put_milliseconds(writer, "created_time", process.start_ns);
        if (!process.exe.empty())
            put_file(writer, process.exe, kUnknownFile);
        if (process.uid)
            put_object(writer, "user", [&] { put_text(writer, "uid", std::to_string(*process.uid)); });
        if (style_.ancestors && process.parent)
            put_parents(writer, process.parent.get());
        else
            put_object(writer, "parent_process", [&] { put_number(writer, "pid", process.ppid); });
    }

    // Each in the one that it made; all that are open are closed at the end.
    static void put_parents(JsonWriter &writer, const agent::Ancestor *each)
    {
        size_t open = 0;
        for (; each; each = each->parent.get(), open++) {
            put_key(writer, "parent_process");
            writer.StartObject();
            put_number(writer, "pid", each->pid);
            put_known(writer, "name", each->name);
            if (each->start_ns)
                put_milliseconds(writer, "created_time", each->start_ns);
        }
        while (open-- > 0)
            writer.EndObject();
    }

    void put_container(JsonWriter &writer, const agent::Event &event) const
    {
        const std::string_view id = container_of(event);
        if (id.empty())
            return;
        const agent::ContainerName known = style_.container_name ? style_.container_name(id) : agent::ContainerName();
        put_object(writer, "container", [&] {
            put_text(writer, "uid", id);
            put_known(writer, "name", known.name);
            if (!known.image.empty())
                put_object(writer, "image", [&] { put_text(writer, "name", known.image); });
        });
    }

    static void put_stat(JsonWriter &writer, const agent::Identity &file)
    {
        put_number(writer, "inode", file.ino);
        put_text(writer, "device", device_text(file));
        put_number(writer, "group", file.gid);
    }

    void put_unmapped(JsonWriter &writer, const agent::Event &event) const
    {
        put_kinds(writer, "events", event.mask);
        put_true(writer, "deleted", event.deleted);
        put_true(writer, "found", event.found);
        put_path_bytes(writer, event.path);
        put_known(writer, "from", event.from);
        put_path_bytes(writer, event.from, "from_bytes");
        if (style_.stat && event.file)
            put_stat(writer, *event.file);
        if (event.process && event.process->loginuid)
            put_number(writer, "loginuid", *event.process->loginuid);
        put_known(writer, "instance", instance_of(style_, event));
    }

    const FormatStyle style_;
    const std::string host_;
    JsonLine line_;
};

}  // namespace

std::unique_ptr<Formatter> make_ocsf_formatter(const FormatStyle &style)
{
    return std::make_unique<OcsfFormatter>(style);
}

}  // namespace output
