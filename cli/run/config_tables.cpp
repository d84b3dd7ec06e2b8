#include "config_tables.h"

#include "agent/settings.h"

namespace cli
{

namespace
{

using T = output::SettingType;

constexpr output::Setting kService[] = {
    {"state_directory", T::kText, "directory for what must outlive the service, such as spools", "/var/lib/fmon"},
    {"socket", T::kText, "Unix socket that answers `fmon stats`; empty: none", "/run/fmon/fmon.sock"},
    {"prometheus", T::kText,
     "address for Prometheus, such as 127.0.0.1:9464 or [::1]:9464, or the path of a Unix socket", ""},
    {"drain", T::kTime, "how long, at the end, outputs may take for what they have accepted", "10 s"},
};

constexpr output::Setting kMonitor[] = {
    {"source", T::kText, "how directories are watched: auto, marks or filesystem", "auto"},
    {"probes", T::kText, "kernel probes: auto, on or off", "auto"},
    {"log_level", T::kNumber, "the monitor's own log: 2 warnings, 3 information, 4 everything", "2"},
};

constexpr output::Setting kInstance[] = {
    {"name", T::kText, "what it is called in records, messages and figures: letters, digits, - and _", nullptr, true},
    {"include", T::kTexts, "show only paths that match one of these (regular expressions, extended)", nullptr},
    {"exclude", T::kTexts, "hide paths that match one of these", nullptr},
    {"iinclude", T::kTexts, "as include, for upper and lower case alike", nullptr},
    {"iexclude", T::kTexts, "as exclude, for upper and lower case alike", nullptr},
    {"process", T::kTexts,
     "show only what processes of these names, or programs with their paths, did; * and ? as in a "
     "shell; with ! in front: hide",
     nullptr},
    {"process_id", T::kTexts, "show only what processes with these numbers did; with ! in front: hide", nullptr},
    {"user", T::kTexts, "show only what these users did, by name or number; with ! in front: hide", nullptr},
    {"container", T::kTexts,
     "show only what was done in these containers, by id, name or image, or by the \"host\"; "
     "with ! in front: hide",
     nullptr},
    {"rate_limit", T::kNumber, "most events a second that are shown; those beyond are counted; 0: all", "0"},
    {"sample", T::kNumber, "show one event of so many; 1: all", "1"},
    {"burst_summary", T::kTime,
     "count events like one that was shown for so long, and report their number; 0: show all", "0"},
};

constexpr output::Setting kWatch[] = {
    {"paths", T::kTexts, "directories and files; one * makes a path a pattern", nullptr},
    {"spare", T::kTexts, "with recursive, mount or system: what lies below these paths is left unwatched", nullptr},
    {"recursive", T::kFlag, "with all directories below", "false"},
    {"events", T::kTexts, "kinds of events; `fmon watch -e help` lists them", nullptr},
    {"pid", T::kFlag, "insist that the process of every open, access, modify and close is named", "false"},
    {"mount", T::kFlag, "watch the mount of each path with one mark", "false"},
    {"delay", T::kFlag, "hold access and modify back until the file is closed", "false"},
    {"no_found", T::kFlag, "do not show what is found in a new directory", "false"},
    {"sync", T::kFlag, "follow renamed and new directories (part of recursive)", "false"},
    {"wait", T::kFlag, "wait for paths that are missing, and again when they go; default: true, but with mount",
     nullptr},
    {"max_depth", T::kNumber, "with recursive: directories down to so many levels; 0: all", "0"},
    {"max_subdirs", T::kNumber, "with recursive: refuse a path with more directories below it; 0: never", "0"},
    {"pair_renames", T::kFlag,
     "show a rename whose old and new path are both watched as one moved_to, with its old path", "false"},
    {"as_given", T::kFlag, "show paths below what stands in paths, and links in it unresolved", "false"},
    {"system", T::kFlag, "events of the whole system, without paths", "false"},
};

constexpr output::Setting kOutput[] = {
    {"type", T::kText, "what takes the records", nullptr, true},
    {"format", T::kText, "the form of records: a name that `fmon watch --format` knows, or a template", "json"},
    {"ancestors", T::kFlag, "show with each process what made it", "false"},
    {"stat", T::kFlag, "show inode, device and group of the file as they are by then (json, ecs, ocsf)", "false"},
    {"time_format", T::kText,
     "form of times in text, CSV and templates, as strftime has them, with %N and %1N to %9N for digits of the "
     "second's "
     "fraction; empty: their own",
     ""},
};

}  // namespace

std::span<const output::Setting> service_keys() { return kService; }
std::span<const output::Setting> instance_keys() { return kInstance; }
std::span<const output::Setting> watch_keys() { return kWatch; }
std::span<const output::Setting> output_keys() { return kOutput; }

Rows monitor_keys()
{
    Rows rows(std::begin(kMonitor), std::end(kMonitor));
    for (const agent::Setting &setting : agent::kSettingTable)
        rows.push_back({setting.name, T::kNumber, "see fmon.ini", nullptr});
    return rows;
}

}  // namespace cli
