/* The figures of a service as Prometheus reads them; stats_text.h. */

#include <cstdio>

#include "stats_json.h"
#include "stats_text.h"

namespace output
{

namespace
{

/* A number that the object has. */
struct Figure {
    const char *member, *metric, *type, *help;
};

constexpr Figure kService[] = {
    {"uptime_ms", "fmon_uptime_milliseconds", "gauge", "Time since the service started."},
    {"reloads", "fmon_reloads_total", "counter", "Configurations taken since the start."},
};

constexpr Figure kMonitor[] = {
    {"records", "fmon_monitor_records", "gauge", "Event records that wait in the monitor."},
    {"max_records", "fmon_monitor_records_max", "gauge", "How many may wait before descriptors are read no more."},
    {"inotify_watches", "fmon_inotify_watches", "gauge", "Inotify watches."},
    {"directories", "fmon_directories", "gauge", "Directories that are known."},
    {"file_systems", "fmon_file_systems", "gauge", "File systems that are marked as a whole."},
};

constexpr Figure kInstance[] = {
    {"events_in", "fmon_events_in_total", "counter", "Events from the monitor."},
    {"filtered", "fmon_events_filtered_total", "counter", "Events that the filters left out."},
    {"limited", "fmon_events_limited_total", "counter", "Events over the rate limit."},
    {"sampled", "fmon_events_sampled_total", "counter", "Events that the sample left out."},
    {"summarised", "fmon_events_summarised_total", "counter", "Events that went into summaries of bursts."},
    {"events", "fmon_events_total", "counter", "Events handed to the outputs."},
};

constexpr Figure kOutput[] = {
    {"accepted", "fmon_output_records_total", "counter", "Records that the output took."},
    {"bytes", "fmon_output_bytes_total", "counter", "Bytes of these, before compression."},
    {"dropped", "fmon_output_dropped_total", "counter", "Records that will not arrive."},
    {"retries", "fmon_output_retries_total", "counter", "Attempts beyond the first."},
    {"waiting", "fmon_output_waiting", "gauge", "Records that are taken and not safe."},
    {"stuck_ms", "fmon_output_stuck_milliseconds", "gauge", "How long the output has been stuck; 0: it is not."},
};

std::string label(const char *name, const std::string &value)
{
    std::string text = std::string(name) + "=\"";
    for (const char c : value)
        text += c == '\n' ? "\\n" : c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    return text + "\"";
}

void add_head(const Figure &figure, std::string &out)
{
    out += std::string("# HELP ") + figure.metric + " " + figure.help + "\n# TYPE " + figure.metric + " " +
           figure.type + "\n";
}

void add_sample(const std::string &metric, const std::string &labels, const std::string &value, std::string &out)
{
    out += metric + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
}

void add_figure(const Json &object, const Figure &figure, const std::string &labels, std::string &out)
{
    const Json *const member = find_member(object, figure.member);
    if (member && member->IsUint64())
        add_sample(figure.metric, labels, std::to_string(member->GetUint64()), out);
}

/* Calls fn(instance, labels) for each instance. */
template <typename Fn>
void for_each_instance(const Json &stats, Fn fn)
{
    for_each_element(stats, "instances",
                     [&](const Json &each, size_t) { fn(each, label("instance", text_of(each, "name"))); });
}

std::string seconds_text(uint64_t microseconds)
{
    char text[32];
    snprintf(text, sizeof text, "%.9g", static_cast<double>(microseconds) / 1e6);
    return text;
}

void add_latency(const Json &latency, const std::string &labels, std::string &out)
{
    const std::string name = "fmon_latency_seconds";
    uint64_t below = 0;
    for_each_element(latency, "buckets", [&](const Json &bucket, size_t) {
        if (!bucket.IsArray() || bucket.Size() != 2 || !bucket[1].IsUint64())
            return;
        below += bucket[1].GetUint64();
        const std::string bound = bucket[0].IsUint64() ? seconds_text(bucket[0].GetUint64()) : "+Inf";
        add_sample(name + "_bucket", labels + "," + label("le", bound), std::to_string(below), out);
    });
    add_sample(name + "_sum", labels, seconds_text(number_of(latency, "sum")), out);
    add_sample(name + "_count", labels, std::to_string(number_of(latency, "count")), out);
}

void add_service(const Json &stats, std::string &out)
{
    const Json &service = *find_member(stats, "service");
    add_head({"", "fmon_info", "gauge", "The service."}, out);
    add_sample("fmon_info",
               label("version", text_of(service, "version")) + "," + label("host", text_of(service, "host")) + "," +
                   label("config", text_of(service, "config")) + "," + label("state", text_of(service, "state")),
               "1", out);
    for (const Figure &figure : kService) {
        add_head(figure, out);
        add_figure(service, figure, "", out);
    }
    add_head({"", "fmon_reload_failed", "gauge", "1: the latest configuration was refused, and the one before holds."},
             out);
    add_sample("fmon_reload_failed", "", text_of(service, "reload_error").empty() ? "0" : "1", out);
    add_head({"", "fmon_losses_total", "counter", "What was missed, by what missed it."}, out);
    for_each_count(stats, "losses", [&](const std::string &source, uint64_t count) {
        add_sample("fmon_losses_total", label("source", source), std::to_string(count), out);
    });
}

void add_instances(const Json &stats, std::string &out)
{
    for (const Figure &figure : kInstance) {
        add_head(figure, out);
        for_each_instance(
            stats, [&](const Json &instance, const std::string &labels) { add_figure(instance, figure, labels, out); });
    }
    add_head({"", "fmon_queue", "gauge", "Events that wait in the service."}, out);
    for_each_instance(stats, [&](const Json &instance, const std::string &labels) {
        uint64_t queued = 0;
        for_each_element(instance, "watches", [&](const Json &watch, size_t) { queued += number_of(watch, "queue"); });
        add_sample("fmon_queue", labels, std::to_string(queued), out);
    });
    add_head({"", "fmon_latency_seconds", "histogram", "From an event to the last output that took it."}, out);
    for_each_instance(stats, [&](const Json &instance, const std::string &labels) {
        if (const Json *const latency = find_member(instance, "latency_us"))
            add_latency(*latency, labels, out);
    });
}

void add_outputs(const Json &stats, std::string &out)
{
    for (const Figure &figure : kOutput) {
        add_head(figure, out);
        for_each_instance(stats, [&](const Json &instance, const std::string &labels) {
            for_each_element(instance, "outputs", [&](const Json &sink, size_t place) {
                add_figure(sink, figure,
                           labels + "," + label("output", std::to_string(place + 1)) + "," +
                               label("type", text_of(sink, "type")),
                           out);
            });
        });
    }
}

}  // namespace

bool prometheus_text(std::string_view json, std::string &text)
{
    text.clear();
    rapidjson::Document stats;
    if (!parse_stats(json, stats))
        return false;
    add_service(stats, text);
    const Json *const monitor = find_member(stats, "monitor");
    for (const Figure &figure : kMonitor) {
        add_head(figure, text);
        if (monitor)
            add_figure(*monitor, figure, "", text);
    }
    add_instances(stats, text);
    add_outputs(stats, text);
    return true;
}

}  // namespace output
