#include "stats.h"

#include <unistd.h>

#include "output/json_writer.h"

namespace cli
{

namespace
{

using output::JsonWriter, output::put_number, output::put_paths, output::put_text;

void put_service(JsonWriter &writer, const ServiceStats &stats)
{
    writer.Key("service");
    writer.StartObject();
    put_number(writer, "pid", static_cast<uint64_t>(getpid()));
    put_text(writer, "version", FMON_VERSION);
    put_text(writer, "host", stats.host);
    put_text(writer, "boot", stats.boot);
    output::JsonTime().put(writer, "start", stats.start_ns);
    put_number(writer, "uptime_ms", stats.uptime_ms);
    put_text(writer, "config", stats.config);
    put_number(writer, "reloads", stats.reloads);
    put_text(writer, "reload_error", stats.reload_error);
    put_text(writer, "state", stats.state);
    writer.EndObject();
}

void put_monitor(JsonWriter &writer, const struct fmon_status &monitor)
{
    writer.Key("monitor");
    writer.StartObject();
    put_number(writer, "records", monitor.records);
    put_number(writer, "max_records", monitor.max_records);
    put_number(writer, "inotify_watches", monitor.inotify_watches);
    put_number(writer, "directories", monitor.directories);
    put_number(writer, "file_systems", monitor.fs.file_systems);
    writer.EndObject();
}

void put_losses(JsonWriter &writer, const std::map<std::string, uint64_t> &losses)
{
    writer.Key("losses");
    writer.StartObject();
    for (const auto &[source, count] : losses)
        put_number(writer, source, count);
    writer.EndObject();
}

void put_watch(JsonWriter &writer, const WatchStats &watch)
{
    writer.StartObject();
    put_paths(writer, "paths", watch.paths);
    put_text(writer, "state", watch.state);
    put_text(writer, "source", watch.source);
    put_number(writer, "directories", watch.directories);
    put_number(writer, "queue", watch.queue);
    put_number(writer, "waiting_paths", watch.waiting_paths);
    writer.EndObject();
}

void put_latencies(JsonWriter &writer, const output::Latencies &latencies)
{
    writer.Key("latency_us");
    writer.StartObject();
    put_number(writer, "count", latencies.count);
    put_number(writer, "sum", latencies.sum_us);
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

void put_output(JsonWriter &writer, const output::OutletFigures &output, uint64_t now_ms)
{
    const bool stuck = output.condition.stuck;
    writer.StartObject();
    put_text(writer, "type", output.type);
    put_text(writer, "format", output.format);
    put_number(writer, "accepted", output.sink.accepted);
    put_number(writer, "bytes", output.sink.bytes);
    put_number(writer, "dropped", output.sink.dropped);
    put_number(writer, "retries", output.sink.retries);
    put_number(writer, "waiting", output.sink.waiting);
    put_number(writer, "safe", output.safe);
    writer.Key("stuck");
    writer.Bool(stuck);
    put_number(writer, "stuck_ms",
               stuck && now_ms > output.condition.since_ms ? now_ms - output.condition.since_ms : 0);
    put_text(writer, "text", output.condition.text);
    writer.EndObject();
}

void put_instance(JsonWriter &writer, const InstanceStats &instance, uint64_t now_ms)
{
    writer.StartObject();
    put_text(writer, "name", instance.name);
    writer.Key("watches");
    writer.StartArray();
    for (const WatchStats &watch : instance.watches)
        put_watch(writer, watch);
    writer.EndArray();
    put_number(writer, "events_in", instance.figures.events_in);
    put_number(writer, "filtered", instance.figures.filtered);
    put_number(writer, "limited", instance.figures.limited);
    put_number(writer, "sampled", instance.figures.sampled);
    put_number(writer, "summarised", instance.figures.summarised);
    put_number(writer, "events", instance.figures.events);
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
    JsonWriter writer(buffer);
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
