#include "config_watch.h"

#include <algorithm>

#include "agent/event_names.h"
#include "checked_table.h"
#include "cli/watch/options.h"
#include "config_tables.h"

namespace cli
{

namespace
{

bool is_pattern(const std::string &path) { return path.find('*') != std::string::npos; }

// The options of `fmon watch` are spoken of by the keys' names: "--max-depth" as "max_depth".
std::string in_keys(std::string text)
{
    for (size_t at = text.find("--"); at != std::string::npos; at = text.find("--", at)) {
        text.erase(at, 2);
        for (; at < text.size() && (isalpha(text[at]) || text[at] == '-'); at++)
            if (text[at] == '-')
                text[at] = '_';
    }
    return text;
}

void check_paths(const CheckedTable &table, const agent::Request &request)
{
    if (!request.system && request.paths.empty())
        table.fault("paths", "[[instance.watch]] watches nothing: give it 'paths', or 'system = true'");
    const auto check_all = [&](const char *key, const std::vector<std::string> &paths) {
        for (const std::string &path : paths)
            if (path.empty() || path[0] != '/')
                table.fault(key, "'" + path + "' is no absolute path: begin it with /");
    };
    check_all("paths", request.paths);
    check_all("spare", request.spare);
}

void take_events(const CheckedTable &table, agent::Request &request)
{
    for (const std::string &name : table.texts("events")) {
        uint32_t mask = 0;
        std::string unknown;
        if (agent::parse_events(name, mask, unknown))
            request.events |= mask;
        else
            table.fault("events", "unknown event '" + unknown + "': `fmon watch -e help` lists the names");
    }
}

uint32_t limited(const CheckedTable &table, const char *key, uint64_t most)
{
    if (table.number(key) > most)
        table.fault(key, "'" + std::string(key) + "' takes a number from 0 to " + std::to_string(most));
    return static_cast<uint32_t>(table.number(key));
}

// Patterns wait by themselves, and mounts cannot be waited for.
bool waits(const CheckedTable &table, const agent::Request &request)
{
    const bool may_wait =
        !request.mount && !request.system && !std::all_of(request.paths.begin(), request.paths.end(), is_pattern);
    return table.says("wait") ? table.flag("wait") : may_wait;
}

}  // namespace

agent::Request read_watch(const TomlValue &value, const agent::Request &monitor, Faults &faults)
{
    const std::span<const output::Setting> rows = watch_keys();
    const CheckedTable table(value, "[[instance.watch]]", Rows(rows.begin(), rows.end()), {}, faults);
    WatchOptions request;
    static_cast<agent::Request &>(request) = monitor;
    request.paths = table.texts("paths");
    request.spare = table.texts("spare");
    request.recursive = table.flag("recursive");
    request.pid = table.flag("pid");
    request.mount = table.flag("mount");
    request.delay = table.flag("delay");
    request.no_found = table.flag("no_found");
    request.sync = table.flag("sync");
    request.pair_renames = table.flag("pair_renames");
    request.as_given = table.flag("as_given");
    request.system = table.flag("system");
    request.max_depth = limited(table, "max_depth", 65535);
    request.max_subdirs = limited(table, "max_subdirs", 0x7fffffff);
    request.keep_going = request.unattended = request.quiet = true;
    request.wait = waits(table, request);
    take_events(table, request);
    request.all_events = request.events == 0xfff;
    check_paths(table, request);
    const char *reason = request.system || !request.paths.empty() ? find_contradiction(request) : nullptr;
    if (reason)
        faults.add(value.place, in_keys(reason));
    return request;
}

}  // namespace cli
