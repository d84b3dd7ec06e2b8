#include "stats.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <string_view>

#include "agent/escape.h"
#include "agent/time_format.h"

namespace cli
{

namespace
{

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void put(Writer &writer, std::string_view text)
{
    std::string clean;
    if (!agent::is_utf8(text))
        agent::append_utf8(text, clean);
    const std::string_view shown = agent::is_utf8(text) ? text : std::string_view(clean);
    writer.String(shown.data(), static_cast<rapidjson::SizeType>(shown.size()));
}

void put(Writer &writer, const char *key, std::string_view text)
{
    writer.Key(key);
    put(writer, text);
}

void put(Writer &writer, const char *key, uint64_t number)
{
    writer.Key(key);
    writer.Uint64(number);
}

void put_time(Writer &writer, const char *key, uint64_t ns)
{
    std::string text;
    agent::UtcTime().append(ns, text);
    put(writer, key, text);
}

void put_service(Writer &writer, const ServiceStats &stats)
{
    writer.Key("service");
    writer.StartObject();
    put(writer, "pid", static_cast<uint64_t>(getpid()));
    put(writer, "version", FMON_VERSION);
    put(writer, "host", stats.host);
    put(writer, "boot", stats.boot);
    put_time(writer, "start", stats.start_ns);
    put(writer, "uptime_ms", stats.uptime_ms);
    put(writer, "config", stats.config);
    put(writer, "reloads", stats.reloads);
    put(writer, "reload_error", stats.reload_error);
    put(writer, "state", stats.state);
    writer.EndObject();
}

void put_monitor(Writer &writer, const struct fmon_status &monitor)
{
    writer.Key("monitor");
    writer.StartObject();
    put(writer, "records", monitor.records);
    put(writer, "max_records", monitor.max_records);
    put(writer, "inotify_watches", monitor.inotify_watches);
    put(writer, "directories", monitor.directories);
    put(writer, "file_systems", monitor.fs.file_systems);
    writer.EndObject();
}

void put_losses(Writer &writer, const std::map<std::string, uint64_t> &losses)
{
    writer.Key("losses");
    writer.StartObject();
    for (const auto &[source, count] : losses)
        put(writer, source.c_str(), count);
    writer.EndObject();
}

void put_watch(Writer &writer, const WatchStats &watch)
{
    writer.StartObject();
    writer.Key("paths");
    writer.StartArray();
    for (const std::string &path : watch.paths)
        put(writer, path);
    writer.EndArray();
    put(writer, "state", watch.state);
    put(writer, "source", watch.source);
    put(writer, "directories", watch.directories);
    put(writer, "queue", watch.queue);
    put(writer, "waiting_paths", watch.waiting_paths);
    writer.EndObject();
}

void put_latencies(Writer &writer, const output::Latencies &latencies)
{
    writer.Key("latency_us");
    writer.StartObject();
    put(writer, "count", latencies.count);
    put(writer, "sum", latencies.sum_us);
    writer.Key("buckets");
    writer.StartArray();
    for (size_t i = 0; i < latencies.kRanges; i++) {
        writer.StartArray();
        if (i < std::size(latencies.kBounds))
            writer.Uint64(latencies.kBounds[i]);
        else
            writer.Null();
        writer.Uint64(latencies.counts[i]);
        writer.EndArray();
    }
    writer.EndArray();
    writer.EndObject();
}

void put_output(Writer &writer, const output::OutletFigures &output, uint64_t now_ms)
{
    const bool stuck = output.condition.stuck;
    writer.StartObject();
    put(writer, "type", output.type);
    put(writer, "format", output.format);
    put(writer, "accepted", output.sink.accepted);
    put(writer, "bytes", output.sink.bytes);
    put(writer, "dropped", output.sink.dropped);
    put(writer, "retries", output.sink.retries);
    put(writer, "waiting", output.sink.waiting);
    put(writer, "safe", output.safe);
    writer.Key("stuck");
    writer.Bool(stuck);
    put(writer, "stuck_ms", stuck && now_ms > output.condition.since_ms ? now_ms - output.condition.since_ms : 0);
    put(writer, "text", output.condition.text);
    writer.EndObject();
}

void put_instance(Writer &writer, const InstanceStats &instance, uint64_t now_ms)
{
    writer.StartObject();
    put(writer, "name", instance.name);
    writer.Key("watches");
    writer.StartArray();
    for (const WatchStats &watch : instance.watches)
        put_watch(writer, watch);
    writer.EndArray();
    put(writer, "events_in", instance.figures.events_in);
    put(writer, "filtered", instance.figures.filtered);
    put(writer, "limited", instance.figures.limited);
    put(writer, "sampled", instance.figures.sampled);
    put(writer, "summarised", instance.figures.summarised);
    put(writer, "events", instance.figures.events);
    put_latencies(writer, instance.figures.latencies);
    writer.Key("outputs");
    writer.StartArray();
    for (const output::OutletFigures &output : instance.outputs)
        put_output(writer, output, now_ms);
    writer.EndArray();
    writer.EndObject();
}

}  // namespace

std::string stats_json(const ServiceStats &stats, uint64_t now_ms)
{
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    put_service(writer, stats);
    put_losses(writer, stats.losses);
    put_monitor(writer, stats.monitor);
    writer.Key("instances");
    writer.StartArray();
    for (const InstanceStats &instance : stats.instances)
        put_instance(writer, instance, now_ms);
    writer.EndArray();
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace cli
