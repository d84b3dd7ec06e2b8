#include "options.h"

#include <algorithm>

#include "agent/event_names.h"
#include "option_values.h"
#include "orx_fmon.h"
#include "output/formats.h"

namespace cli
{

namespace
{

/* A contradiction, in words that say what to leave out. */
struct Contradiction {
    bool (*applies)(const WatchOptions &options);
    const char *reason;
};

// `-e all` means all that there is.
bool asks_beyond(const WatchOptions &o, uint32_t events) { return !o.all_events && (o.events & ~events); }

bool says_how(const WatchOptions &o)
{
    return o.recursive || o.as_given || o.mount || o.pid || o.delay || o.sync || o.wait || o.max_depth || o.no_found;
}

bool uses_probes(const WatchOptions &o) { return o.probes != agent::Probes::kOff; }

bool is_filesystem(const WatchOptions &o) { return o.source == agent::Source::kFilesystem; }

// Marks of directories name the process of some kinds only.
bool may_name_all(const WatchOptions &o) { return o.source != agent::Source::kMarks && !o.mount && !o.max_depth; }

bool has_records(const std::string &format)
{
    const output::FormatRow *const row = output::find_format(format);
    return row && row->has_records;
}

bool spares_no_tree(const WatchOptions &o)
{
    return std::any_of(o.spare.begin(), o.spare.end(), [](const std::string &path) {
        return path.find_first_not_of('/') == std::string::npos || path.find('*') != std::string::npos;
    });
}

constexpr Contradiction kContradictions[] = {
    {spares_no_tree, "what is left unwatched (@PATH, spare) is a path without \"*\", and not all there is"},
    {[](const WatchOptions &o) { return !o.spare.empty() && !o.recursive && !o.mount && !o.system; },
     "what is left unwatched (@PATH, spare) is a part of a tree: add --recursive, or leave it out"},
    {[](const WatchOptions &o) { return !o.system && o.paths.empty(); }, "no PATH to watch: see fmon watch --help"},
    {[](const WatchOptions &o) { return o.system && !o.paths.empty(); },
     "--system is about all paths: leave out the PATH"},
    {[](const WatchOptions &o) { return o.system && says_how(o); },
     "--system goes with none of the options that say how a path is watched"},
    {[](const WatchOptions &o) { return o.system && asks_beyond(o, agent::kSystemEvents); },
     "--system knows create, delete, moved_from, moved_to and close_write only: leave out the others"},
    {[](const WatchOptions &o) { return o.system && !uses_probes(o) && o.source == agent::Source::kMarks; },
     "--system needs kernel probes, or marks of whole file systems: leave out --probes off, or --source marks"},
    {[](const WatchOptions &o) { return o.system && o.probes == agent::Probes::kOn && is_filesystem(o); },
     "--system takes its events from one of both: leave out --probes on, or --source filesystem"},
    {[](const WatchOptions &o) { return is_filesystem(o) && (o.mount || o.max_depth); },
     "--source filesystem watches whole trees: leave out --mount and --max-depth"},
    {[](const WatchOptions &o) { return o.mount && asks_beyond(o, agent::kProcessEvents); },
     "--mount sees open, access, modify, close_write and close_nowrite only: leave out the other events"},
    {[](const WatchOptions &o) { return o.mount && (o.sync || o.wait || o.max_depth || o.max_subdirs); },
     "--mount watches a whole mount: leave out --sync, --wait, --max-depth and --max-subdirs"},
    {[](const WatchOptions &o) { return o.pid && !may_name_all(o) && o.events && !(o.events & agent::kProcessEvents); },
     "--pid with --source marks, --mount or --max-depth is about open, access, modify, close_write and close_nowrite: "
     "ask for one of them"},
    {[](const WatchOptions &o) { return o.pair_renames && !may_pair_renames(o); },
     "--pair-renames, and %o, are about moved_from and moved_to: ask for both (-e move), without --mount"},
    {[](const WatchOptions &o) { return !o.time_format.empty() && has_records(o.format); },
     "--time-format is about text, csv and templates: json, ecs and ocsf have times of one form"},
    {[](const WatchOptions &o) { return o.stat && !has_records(o.format); },
     "--stat is about json, ecs and ocsf: a template says %i, %D or %g"},
    {[](const WatchOptions &o) { return o.append && o.output.empty(); },
     "--append is about a file: say which with -o FILE"},
    {[](const WatchOptions &o) { return !o.recursive && (o.max_depth || o.max_subdirs); },
     "--max-depth and --max-subdirs need --recursive"},
};

}  // namespace

bool take::paths(WatchOptions &options, VerbOf<WatchOptions>::Arguments arguments, std::string &error)
{
    std::vector<std::string> all(arguments.begin(), arguments.end());
    all.insert(all.end(), options.listed.begin(), options.listed.end());
    for (const std::string &path : all)
        if (path.starts_with('@'))
            options.spare.push_back(path.substr(1));
        else
            options.paths.push_back(path);
    if (options.list_events)
        return true;
    const char *const reason = find_contradiction(options);
    error = reason ? reason : "";
    return !reason;
}

// Of a rename one half says nothing of the other.
bool may_pair_renames(const agent::Request &request)
{
    constexpr uint32_t kHalves = FMON_MOVED_FROM | FMON_MOVED_TO;
    return !request.mount && (!request.events || (request.events & kHalves) == kHalves);
}

const char *find_contradiction(const WatchOptions &options)
{
    for (const Contradiction &contradiction : kContradictions)
        if (contradiction.applies(options))
            return contradiction.reason;
    return nullptr;
}

std::string event_list()
{
    std::string text;
    for (const agent::EventName &row : agent::kEventTable) {
        std::string line = row.name;
        line.resize(16, ' ');
        text += line + row.meaning + "\n";
    }
    return text;
}

}  // namespace cli
