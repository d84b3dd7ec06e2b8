#include "stats_text.h"

#include <cstdio>

#include "agent/escape.h"
#include "agent/message.h"
#include "stats_json.h"

namespace output
{

namespace
{

using agent::counted;
using agent::with_commas;

std::string shown(const Json &object, const char *key) { return agent::escaped(text_of(object, key)); }

// "90 s", "12 min", "5 h", "3 d"
std::string span_text(uint64_t ms)
{
    const uint64_t s = ms / 1000;
    return s < 120      ? std::to_string(s) + " s"
           : s < 7200   ? std::to_string(s / 60) + " min"
           : s < 172800 ? std::to_string(s / 3600) + " h"
                        : std::to_string(s / 86400) + " d";
}

std::string bytes_text(uint64_t bytes)
{
    const char *const units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    auto amount = static_cast<double>(bytes);
    size_t unit = 0;
    for (; amount >= 1024 && unit < 4; unit++)
        amount /= 1024;
    char text[32];
    snprintf(text, sizeof text, unit ? "%.1f %s" : "%.0f %s", amount, units[unit]);
    return text;
}

// In milliseconds: the bound below which that part of all were; "more" beyond the last.
std::string quantile_text(const Json &latency, uint64_t per_mille)
{
    const uint64_t wanted = (number_of(latency, "count") * per_mille + 999) / 1000;
    uint64_t seen = 0;
    std::string text = "more";
    for_each_element(latency, "buckets", [&](const Json &bucket, size_t) {
        const bool whole = bucket.IsArray() && bucket.Size() == 2 && bucket[1].IsUint64();
        if (!whole || seen >= wanted)
            return;
        seen += bucket[1].GetUint64();
        if (seen < wanted || !bucket[0].IsUint64())
            return;
        char bound[32];
        snprintf(bound, sizeof bound, "%g ms", static_cast<double>(bucket[0].GetUint64()) / 1000);
        text = bound;
    });
    return text;
}

void add(std::string &out, const char *what, const std::string &text)
{
    std::string line = what;
    line.resize(12, ' ');
    out += line + text + "\n";
}

void add_service(const Json &service, std::string &out)
{
    add(out, "service",
        shown(service, "host") + ", process " + std::to_string(number_of(service, "pid")) + ", fmon " +
            shown(service, "version") + ", " + shown(service, "state"));
    add(out, "start", shown(service, "start") + ", " + span_text(number_of(service, "uptime_ms")) + " ago");
    add(out, "config", shown(service, "config") + ", " + counted(number_of(service, "reloads"), "reload"));
    if (const std::string error = shown(service, "reload_error"); !error.empty())
        add(out, "  REFUSED", error);
}

void add_losses(const Json &stats, std::string &out)
{
    std::string losses;
    for_each_count(stats, "losses", [&](const std::string &source, uint64_t count) {
        if (count)
            losses += (losses.empty() ? "" : ", ") + agent::escaped(source) + " " + with_commas(count);
    });
    add(out, "losses", losses.empty() ? "none" : losses);
}

void add_monitor(const Json &monitor, std::string &out)
{
    add(out, "monitor",
        with_commas(number_of(monitor, "records")) + " of " + with_commas(number_of(monitor, "max_records")) +
            " records wait; " + counted(number_of(monitor, "inotify_watches"), "inotify watch") + ", " +
            counted(number_of(monitor, "directories"), "directory") + ", " +
            counted(number_of(monitor, "file_systems"), "file system"));
}

void add_watch(const Json &watch, std::string &out)
{
    std::string paths;
    for_each_element(watch, "paths", [&](const Json &path, size_t) {
        if (path.IsString())
            paths += (paths.empty() ? "" : " ") + agent::escaped({path.GetString(), path.GetStringLength()});
    });
    const uint64_t missing = number_of(watch, "waiting_paths");
    add(out, "  watch",
        (paths.empty() ? "the whole system" : paths) + ": " + shown(watch, "state") + ", " + shown(watch, "source") +
            ", " + counted(number_of(watch, "directories"), "directory") + ", " +
            counted(number_of(watch, "queue"), "event") + " in the queue" +
            (missing ? ", " + counted(missing, "path") + " awaited" : ""));
}

void add_output(const Json &sink, std::string &out)
{
    std::string text =
        shown(sink, "type") + " (" + shown(sink, "format") + "): " + counted(number_of(sink, "accepted"), "record") +
        ", " + bytes_text(number_of(sink, "bytes")) + ", " + with_commas(number_of(sink, "waiting")) + " waiting, " +
        with_commas(number_of(sink, "dropped")) + " dropped, " + counted(number_of(sink, "retries"), "more attempt");
    if (is_set(sink, "stuck"))
        text += "; STUCK for " + span_text(number_of(sink, "stuck_ms")) + ": " + shown(sink, "text");
    add(out, "  output", text);
}

void add_instance(const Json &instance, std::string &out)
{
    add(out, "instance", shown(instance, "name"));
    for_each_element(instance, "watches", [&](const Json &watch, size_t) { add_watch(watch, out); });
    std::string events =
        with_commas(number_of(instance, "events_in")) + " in, " + with_commas(number_of(instance, "events")) + " out";
    for (const char *key : {"filtered", "limited", "sampled", "summarised"})
        if (const uint64_t count = number_of(instance, key))
            events += ", " + with_commas(count) + " " + key;
    add(out, "  events", events);
    const Json *const latency = find_member(instance, "latency_us");
    if (latency && number_of(*latency, "count"))
        add(out, "  latency",
            "half below " + quantile_text(*latency, 500) + ", 99 % below " + quantile_text(*latency, 990));
    for_each_element(instance, "outputs", [&](const Json &sink, size_t) { add_output(sink, out); });
}

}  // namespace

bool stats_text(std::string_view json, std::string &text)
{
    text.clear();
    rapidjson::Document stats;
    if (!parse_stats(json, stats))
        return false;
    add_service(*find_member(stats, "service"), text);
    add_losses(stats, text);
    if (const Json *const monitor = find_member(stats, "monitor"))
        add_monitor(*monitor, text);
    for_each_element(stats, "instances", [&](const Json &instance, size_t) { add_instance(instance, text); });
    return true;
}

}  // namespace output
