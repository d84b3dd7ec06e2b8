#include "config_read.h"

#include <unistd.h>

#include <algorithm>

#include "agent/message.h"
#include "agent/plan.h"
#include "agent/settings.h"
#include "agent/time_format.h"
#include "checked_table.h"
#include "cli/watch/options.h"
#include "config_file.h"
#include "config_tables.h"
#include "config_watch.h"
#include "orx_fmon.h"
#include "output/formats.h"
#include "output/sinks.h"
#include "status_server.h"

namespace cli
{

namespace
{

constexpr size_t kLongestName = 64;

Rows rows_of(std::span<const output::Setting> rows) { return Rows(rows.begin(), rows.end()); }

const TomlValue &table_or_none(const TomlValue &document, const char *key, Faults &faults)
{
    static const TomlValue kNone;
    const TomlMember *member = document.find(key);
    if (!member)
        return kNone;
    if (member->value.kind == TomlValue::kTable)
        return member->value;
    faults.add(member->place, std::string("'") + key + "' is " + kind_text(member->value.kind) + ": write [" + key +
                                  "] and its keys below");
    return kNone;
}

/* ---- [fmon] ---- */

template <typename Choice>
void take_choice(const CheckedTable &table, const char *key, std::initializer_list<const char *> words, Choice &choice)
{
    const std::string text = table.text(key);
    const auto found = std::find(words.begin(), words.end(), text);
    if (found != words.end()) {
        choice = static_cast<Choice>(found - words.begin());
        return;
    }
    std::string all;
    for (const char *word : words)
        all += (all.empty() ? "" : ", ") + std::string(word);
    table.fault(key, "'" + std::string(key) + "' takes one of " + all + ", not '" + text + "'");
}

void take_ini(const CheckedTable &table, const agent::Setting &setting, agent::Request &monitor)
{
    const uint64_t number = table.number(setting.name);
    if (!table.says(setting.name))
        return;
    if (number < setting.low || number > setting.high)
        table.fault(setting.name, "'" + std::string(setting.name) + "' takes a number from " +
                                      std::to_string(setting.low) + " to " + std::to_string(setting.high));
    monitor.settings.emplace_back(setting.name, std::to_string(number));
}

agent::Request read_monitor(const TomlValue &document, Faults &faults)
{
    const CheckedTable table(table_or_none(document, "fmon", faults), "[fmon]", monitor_keys(), {}, faults);
    agent::Request monitor;
    take_choice(table, "source", {"auto", "marks", "filesystem"}, monitor.source);
    take_choice(table, "probes", {"auto", "on", "off"}, monitor.probes);
    for (const agent::Setting &setting : agent::kSettingTable)
        take_ini(table, setting, monitor);
    const uint64_t level = table.number("log_level");
    if (level < 2 || level > 4)
        table.fault("log_level", "'log_level' takes 2 (warnings), 3 (information) or 4 (everything)");
    monitor.log_level = static_cast<int>(level);
    return monitor;
}

/* ---- [service] ---- */

void check_path(const CheckedTable &table, const char *key, bool may_be_empty)
{
    const std::string path = table.text(key);
    if (path.empty() ? !may_be_empty : path[0] != '/')
        table.fault(key, "'" + std::string(key) + "' takes an absolute path, not '" + path + "'");
}

ServiceConfig read_service(const TomlValue &document, Faults &faults)
{
    const CheckedTable table(table_or_none(document, "service", faults), "[service]", rows_of(service_keys()), {},
                             faults);
    check_path(table, "state_directory", false);
    check_path(table, "socket", true);
    const std::string prometheus = table.text("prometheus");
    if (!prometheus.empty() && prometheus[0] != '/' && loopback_port(prometheus) == 0)
        table.fault("prometheus",
                    "'prometheus' takes an address of this machine, such as 127.0.0.1:9464, or an absolute "
                    "path, not '" +
                        prometheus + "'");
    return {table.text("state_directory"), table.text("socket"), table.text("prometheus"), table.number("drain"),
            read_monitor(document, faults)};
}

/* ---- [[instance]] ---- */

std::string sink_names()
{
    std::string names;
    for (const output::SinkRow &row : output::sinks())
        names += (names.empty() ? "" : ", ") + std::string(row.type);
    return names;
}

void check_format(const CheckedTable &table, const std::string &format)
{
    std::string reason;
    if (!output::find_format(format) && format.find('%') == std::string::npos)
        table.fault("format", "'format' takes " + output::format_names() + " or a template such as '%e %p', not '" +
                                  format + "'");
    else if (!output::make_formatter(format, {}, reason))
        table.fault("format", reason);
}

void check_shape(const CheckedTable &table)
{
    if (table.text("time_format").size() > agent::FormattedTime::kMaxFormat)
        table.fault("time_format", "'time_format' takes a format such as '%F %T', of at most 128 bytes");
    const output::FormatRow *const row = output::find_format(table.text("format"));
    if (!table.text("time_format").empty() && row && row->has_records)
        table.fault("time_format", "'time_format' is about text, csv and templates: " + table.text("format") +
                                       " has times of one form");
    if (table.flag("stat") && !(row && row->has_records))
        table.fault("stat", "'stat' is about json, ecs and ocsf: a template says %i, %D or %g");
}

// Of an unknown type all keys are unknown: only the type is reported.
OutputConfig read_output(const TomlValue &value, Faults &faults)
{
    const TomlMember *type = value.find("type");
    const output::SinkRow *sink =
        type && type->value.kind == TomlValue::kText ? output::find_sink(type->value.text) : nullptr;
    if (type && type->value.kind == TomlValue::kText && !sink) {
        faults.add(type->value.place,
                   "there is no output of type '" + type->value.text + "': there are " + sink_names());
        return {};
    }
    Rows rows = rows_of(output_keys());
    if (sink)
        rows.insert(rows.end(), sink->settings.begin(), sink->settings.end());
    const CheckedTable table(value, "[[instance.output]]", rows, {}, faults);
    check_format(table, table.text("format"));
    check_shape(table);
    std::string error;
    if (sink && faults.empty() && !sink->make(table.settings(), {"", "", ""}, error))
        faults.add(value.place, std::string(sink->type) + ": " + error);
    OutputConfig output;
    output.type = table.text("type");
    output.format = table.text("format");
    output.ancestors = table.flag("ancestors") || output::asks_for(output.format, 'a');
    output.stat = table.flag("stat");
    output.time_format = table.text("time_format");
    output.settings = table.settings();
    return output;
}

// A template that shows old paths wants them wherever both are watched, and a CSV file has a column more.
void pair_renames(InstanceConfig &instance)
{
    const auto pairs = [](const auto &each) { return each.pair_renames; };
    const auto shows = [](const auto &output) { return output::asks_for(output.format, 'o'); };
    if (std::any_of(instance.outputs.begin(), instance.outputs.end(), shows))
        for (agent::Request &watch : instance.watches)
            watch.pair_renames = may_pair_renames(watch);
    const bool paired = std::any_of(instance.watches.begin(), instance.watches.end(), pairs);
    for (OutputConfig &output : instance.outputs)
        output.pairs = paired && output.format == "csv";
}

void check_name(const CheckedTable &table, const std::string &name, const std::vector<InstanceConfig> &others)
{
    const bool is_plain = std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    });
    if (!table.says("name"))
        return;
    if (name.empty() || name.size() > kLongestName || !is_plain)
        table.fault("name", "'name' takes 1 to 64 letters, digits, - and _, not '" + name + "'");
    for (const InstanceConfig &other : others)
        if (other.name == name)
            table.fault("name", "there is an instance '" + name + "' already: give each a name of its own");
}

void check_filter(const CheckedTable &table, const output::FilterOptions &filter)
{
    output::EventFilter trial;
    std::string key, error;
    if (trial.prepare(filter, nullptr, key, error))
        return;
    table.fault(key, error);
}

output::PacingOptions pacing_of(const CheckedTable &table)
{
    if (table.number("sample") == 0)
        table.fault("sample", "'sample' takes 1 (all events) or more");
    return {table.number("rate_limit"), table.number("sample"), table.number("burst_summary")};
}

InstanceConfig read_instance(const TomlValue &value, const agent::Request &monitor,
                             const std::vector<InstanceConfig> &others, Faults &faults)
{
    const CheckedTable table(value, "[[instance]]", rows_of(instance_keys()), {"watch", "output"}, faults);
    InstanceConfig instance;
    instance.name = table.text("name");
    check_name(table, instance.name, others);
    instance.filter = {.include = table.texts("include"),
                       .exclude = table.texts("exclude"),
                       .include_any_case = table.texts("iinclude"),
                       .exclude_any_case = table.texts("iexclude"),
                       .processes = table.texts("process"),
                       .process_ids = table.texts("process_id"),
                       .users = table.texts("user"),
                       .containers = table.texts("container")};
    check_filter(table, instance.filter);
    instance.pacing = pacing_of(table);
    for (const TomlValue &watch : table.tables("watch"))
        instance.watches.push_back(read_watch(watch, monitor, faults));
    for (const TomlValue &output : table.tables("output"))
        instance.outputs.push_back(read_output(output, faults));
    pair_renames(instance);
    if (!table.says("watch"))
        faults.add(value.place, "the instance watches nothing: add [[instance.watch]]");
    if (!table.says("output"))
        faults.add(value.place, "the instance's events go nowhere: add [[instance.output]]");
    return instance;
}

// Each would write at a place of its own, and take the other's file away when it is full.
void check_shared_files(std::span<const TomlValue> instances, Faults &faults)
{
    std::vector<std::string> taken;
    for (const TomlValue &instance : instances) {
        const TomlMember *outputs = instance.find("output");
        for (const TomlValue &output : outputs ? outputs->value.items : std::vector<TomlValue>()) {
            const TomlMember *path = output.find("path");
            if (!path || path->value.kind != TomlValue::kText)
                continue;
            if (std::find(taken.begin(), taken.end(), path->value.text) != taken.end())
                faults.add(path->value.place,
                           "another output has '" + path->value.text +
                               "' already: give each a path of its own, or the instance more watches");
            taken.push_back(path->value.text);
        }
    }
}

void check_number_of_instances(const TomlValue &document, const Config &config, Faults &faults)
{
    size_t needed = 0;
    for (const InstanceConfig &instance : config.instances)
        needed += monitor_instances(instance);
    if (needed > FMON_MAX_INSTANCES)
        faults.add(document.place, "the watches need " + std::to_string(needed) +
                                       " instances of the monitor, which has " + std::to_string(FMON_MAX_INSTANCES) +
                                       ": join watches that differ in their paths only (one with 'pid' needs up to 3)");
}

}  // namespace

size_t monitor_instances(const InstanceConfig &instance)
{
    size_t count = 0;
    for (agent::Request request : instance.watches) {
        request.paths.clear();
        count += request.system ? 1 : agent::make_plan(request, false).instances.size();
    }
    return count;
}

void read_config(std::string_view text, Config &config, Faults &faults)
{
    TomlValue document;
    Place place;
    std::string error;
    if (!parse_toml(text, document, place, error))
        return faults.add(place, error);
    TomlValue instances = document; /* [service] and [fmon] are read by themselves */
    std::erase_if(instances.members, [](const TomlMember &m) { return m.key == "service" || m.key == "fmon"; });
    const CheckedTable top(instances, "", {}, {"instance"}, faults);
    config.service = read_service(document, faults);
    for (const TomlValue &instance : top.tables("instance"))
        config.instances.push_back(read_instance(instance, config.service.monitor, config.instances, faults));
    if (!top.says("instance"))
        faults.add({}, "nothing is watched: add an [[instance]]");
    check_shared_files(top.tables("instance"), faults);
    check_number_of_instances(document, config, faults);
}

std::vector<std::string> load_config(const std::string &file, Config &config)
{
    std::string text, error;
    if (!read_config_file(file, text, error))
        return {error};
    Faults faults;
    read_config(text, config, faults);
    return faults.lines(file);
}

std::vector<std::string> config_warnings(const Config &config)
{
    std::vector<std::string> lines;
    size_t needed = 0;
    for (const InstanceConfig &instance : config.instances) {
        size_t paths = 0;
        for (const agent::Request &watch : instance.watches)
            paths += watch.paths.size();
        if (paths > kMostPaths)
            lines.push_back("instance " + instance.name + " has " + agent::with_commas(paths) +
                            " paths, more than the " + agent::with_commas(kMostPaths) +
                            " that one client should carry: each is compared with all others and looked after each "
                            "second; watch a directory above them, with 'recursive' and 'include'");
        needed += monitor_instances(instance);
    }
    if (needed == FMON_MAX_INSTANCES)
        lines.push_back(
            "all instances of the monitor are taken: directories that are made in trees with marks of their "
            "own cannot be walked");
    return lines;
}

std::vector<std::string> config_awaited(const Config &config)
{
    std::vector<std::string> lines;
    for (const InstanceConfig &instance : config.instances)
        for (const agent::Request &watch : instance.watches)
            for (const std::string &path : watch.paths)
                if (path.find('*') == std::string::npos && access(path.c_str(), F_OK) != 0)
                    lines.push_back("instance " + instance.name + ": " + path + " is not there" +
                                    (watch.wait ? " yet: it is waited for" : ", and cannot be waited for"));
    return lines;
}

}  // namespace cli
