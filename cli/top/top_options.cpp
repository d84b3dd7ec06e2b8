#include "top_options.h"

#include <algorithm>

#include "cli/watch/option_values.h"

namespace cli
{

namespace
{

using O = TopOptions;
using R = OptionRow<O>;

constexpr char kHead[] =
    R"(Usage: fmon top [OPTION]... [PATH]... [@PATH]...

Shows which files, directories, processes and containers are busiest, as it changes. Without a PATH the whole system is
watched (root), for what is created, deleted, renamed and written. What lies below an @PATH is left out.
)";

constexpr char kTail[] = R"(
Keys:
  1 2 3 4, Tab    the table: files, directories, processes, containers
  s               sort by rate, total, latest, name
  /               filter by a text in path, process or container
  Enter           into the row: a directory, or only that process or container
  Backspace       out again
  p               pause; go on
  q               end; h shows all keys

Rates are those of the last five seconds.

Examples:
  fmon top                                 the whole system
  fmon top -r -e all /srv                  everything below /srv, reading too
  fmon top --batch -n 1 -d 10 -r /var      what happens below /var within ten seconds, as text

Status: 0 done; 2 wrong usage, or a PATH could not be watched; 3 no watched PATH is left.
)";

const OptionRow<WatchOptions> &watch_row(const char *name)
{
    const auto rows = watch_rows();
    return *std::find_if(rows.begin(), rows.end(),
                         [&](const auto &row) { return std::string_view(row.option.name) == name; });
}

bool take_as_watch(O &options, const Given &given, std::string &error)
{
    return watch_row(given.option.name).take(options, given, error);
}

/* The same option as that of `fmon watch`. */
R as_watch(const char *name, const char *section = nullptr)
{
    R row = {watch_row(name).option, take_as_watch};
    row.option.section = section;
    return row;
}

bool take_by(O &options, const Given &given, std::string &error)
{
    const int place = parse_choice(given, error);
    if (place >= 0)
        options.by = static_cast<By>(place);
    return place >= 0;
}

bool take_interval(O &options, const Given &given, std::string &error)
{
    return parse_seconds(given.value, 0.1, 86400, options.interval_ms) ||
           bad_value(given, "seconds, 0.1 or more", error);
}

bool says_how(const O &o) { return o.recursive || o.pid || o.mount || o.wait || o.max_depth || o.max_subdirs; }

std::vector<R> make_rows()
{
    return {
        as_watch("recursive", "What is watched"),
        as_watch("events"),
        as_watch("pid"),
        as_watch("mount"),
        as_watch("wait"),
        as_watch("max-depth"),
        as_watch("max-subdirs"),
        as_watch("system"),
        as_watch("include", "What is counted"),
        as_watch("exclude"),
        {{0, "by", "WHAT",
          "the table to begin with, or with --batch the only one: files,\ndirectories, processes or "
          "containers",
          one_of("files directories processes containers"), "What is shown"},
         take_by},
        {{'s', "sort", "KEY", "rate (default), total, latest or name", one_of("rate total latest name")},
         set_choice<O, &O::sort>},
        {{'d', "interval", "S", "a new table each S seconds; default: 1"}, take_interval},
        {{'b', "batch", nullptr, "print plain tables, as is done where there is no terminal"}, set_flag<O, &O::batch>},
        {{'n', "count", "N", "with --batch: end after N tables"}, set_number<O, &O::tables, 1, UINT32_MAX>},
        {{0, "rows", "N", "with --batch: at most N rows a table; default: 10"}, set_number<O, &O::rows, 1, 10000>},
        as_watch("keep-going", "The monitor"),
        as_watch("set"),
        as_watch("source"),
        as_watch("probes"),
        as_watch("help"),
    };
}

std::span<const R> rows()
{
    static const std::vector<R> all = make_rows();
    return all;
}

bool take_arguments(O &options, VerbOf<O>::Arguments arguments, std::string &error)
{
    WatchOptions watch = options;
    watch.system = watch.system || (arguments.empty() && !says_how(options));
    if (!take::paths(watch, arguments, error))
        return false;
    options.paths = watch.paths;
    options.spare = watch.spare;
    if (options.tables && !options.batch)
        error = "--count is about plain tables: add --batch";
    return error.empty();
}

}  // namespace

const VerbOf<O> kTop({"top", "show what is busiest, as it changes", kHead, kTail, nullptr, kPaths}, rows(),
                     take_arguments, run_top);

}  // namespace cli
