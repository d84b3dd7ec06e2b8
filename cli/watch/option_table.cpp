/* The table of `fmon watch`: each option is one row here. */

#include "agent/event_names.h"
#include "option_values.h"
#include "options.h"
#include "output/formats.h"

namespace cli
{

namespace
{

using O = WatchOptions;

constexpr char kHead[] =
    R"(Usage: fmon watch [OPTION]... PATH... [@PATH]...
       fmon watch --system [OPTION]... [@PATH]...

Shows what happens to files: a PATH that is a directory is watched with its entries, a file as a file. One "*" in
PATH (quoted) makes it a pattern; what matches later is watched, too. Of a tree, what lies below @PATH is left out.
)";

constexpr char kTail[] = R"(
Examples:
  fmon watch -r /etc                                changes below /etc, as they happen
  fmon watch -r --pid -e modify,close_write /srv    who writes below /srv (root)
  fmon watch -r /srv @/srv/backup                   the same tree without a part of it
  fmon watch -r --format json /data | jq .path      one JSON object a line
  fmon watch --wait /var/log/app.log                a file that comes and goes
  fmon watch -q -n 1 -e create --include '/ready$' /run     wait until a file is made
  fmon watch --exec 'make -s' -e close_write src    run a command after each save
  fmon watch '/home/*/.ssh'                         every user's, also those to come

Status: 0 done (Ctrl-C, -n reached, or the reader has gone); 1 nothing shown within -t; 2 wrong usage, or a PATH could
not be watched: nothing is watched then, unless --keep-going is given and something could be; 3 no watched PATH is
left. A directory below PATH that may not be read is named on stderr and left out; a limit that is reached
(watches, marks, --set max_dentries) counts as a PATH that could not be watched.

Without root the kernel does not tell which process caused an event.
)";

std::string event_names() { return names_of(agent::kEventTable); }

constexpr OptionRow<O> kRows[] = {
    {{'r',
      "recursive",
      nullptr,
      "with all directories below, new and renamed ones included;\nwithout it a directory is watched with its own "
      "entries",
      {},
      "What is watched"},
     set_flag<O, &O::recursive>},
    {{0, "fromfile", "FILE", "further PATHs, one a line of FILE; - is the standard input", kFiles}, take::fromfile},
    {{'e', "events", "LIST",
      "kinds of events, separated by commas; -e help lists them.\nDefault: create,delete,modify,close_write,moved_from,"
      "moved_to,\nattrib,delete_self,move_self; with --mount modify,close_write",
      list_of(event_names)},
     take::events},
    {{0, "pid", nullptr,
      "insist that the process of every open, access, modify and\nclose is named (root); without it, it is where the "
      "kernel tells"},
     set_flag<O, &O::pid>},
    {{0, "mount", nullptr,
      "watch the mount of PATH with one mark instead of one for each\ndirectory; -r adds the mounts below PATH. Only "
      "open, access,\nmodify and the closes; root"},
     set_flag<O, &O::mount>},
    {{0, "delay", nullptr,
      "hold access and modify back until the file is closed and show\neach once; a close is shown only after one of "
      "them"},
     set_flag<O, &O::delay>},
    {{0, "no-found", nullptr,
      "with -r: do not show what is found in a new directory, made\nbefore the directory could be watched"},
     set_flag<O, &O::no_found>},
    {{0, "sync", nullptr, "follow renamed and new directories (part of -r)"}, set_flag<O, &O::sync>},
    {{0, "wait", nullptr, "PATH may be missing: wait for it, and again when it goes"}, set_flag<O, &O::wait>},
    {{0, "max-depth", "N", "with -r: directories down to N levels below PATH"},
     set_number<O, &O::max_depth, 1, 65535>},  // the monitor keeps 16 bits
    {{0, "max-subdirs", "N", "with -r: refuse a PATH with more than N directories below it"},
     set_number<O, &O::max_subdirs, 1, 0x7fffffff>},
    {{0, "system", nullptr,
      "events of the whole system, without PATH: create, delete,\nmoved_from, moved_to, close_write (root)"},
     set_flag<O, &O::system>},
    {{0, "include", "REGEX", "show only paths that match (extended, may be repeated)", {}, "What is shown"},
     add_text<O, &O::include>},
    {{0, "exclude", "REGEX", "hide paths that match (extended, may be repeated)"}, add_text<O, &O::exclude>},
    {{0, "iinclude", "REGEX", "as --include, for upper and lower case alike"}, add_text<O, &O::include_any_case>},
    {{0, "iexclude", "REGEX", "as --exclude, for upper and lower case alike"}, add_text<O, &O::exclude_any_case>},
    {{0, "process", "NAME",
      "show only what processes of this name, or programs of this\npath, did; * and ? as in a shell; !NAME hides (may "
      "be repeated)"},
     add_text<O, &O::processes>},
    {{0, "process-id", "PID", "show only what the process with this number did; !PID hides"},
     add_text<O, &O::process_ids>},
    {{0, "user", "USER", "show only what this user did, by name or number; !USER hides"}, add_text<O, &O::users>},
    {{'f', "format", "FORM",
      "text, json (one object a line), csv, ecs (Elastic Common Schema),\nocsf (File System Activity), or a template: "
      "%e events, %p path,\n%w its directory, %F its name, %d whether it is one, %o old path,\n%i inode, %D device, %g "
      "group, %P process id, %n "
      "process "
      "name, %a ancestors, %t time,\n%f whether found, %% a percent sign, and the escapes\n\\n \\t \\\\ \\ooo \\xhh",
      one_of([] { return output::format_names(" "); })},
     take::format},
    {{0, "pair-renames", nullptr,
      "show a rename whose both paths are watched as one moved_to,\nwith its old path: \"(from ...)\", from in JSON, "
      "%o in a "
      "template"},
     set_flag<O, &O::pair_renames>},
    {{0, "as-given", nullptr, "show paths below what was typed for PATH, not from \"/\" on"},
     set_flag<O, &O::as_given>},
    {{0, "time-format", "FORM",
      "times as strftime has them, such as '%F %T.%3N', local; %N and\n%1N to %9N are digits of the second's fraction"},
     take::time_format},
    {{0, "ancestors", nullptr,
      "show with each process what made it, and so on up to the first\none that is known (text, json; %a in a "
      "template)"},
     set_flag<O, &O::ancestors>},
    {{0, "stat", nullptr,
      "show inode, device and group of the file as they are by then\n(json, ecs, ocsf; %i %D %g in a template)"},
     set_flag<O, &O::stat>},
    {{'0', "null", nullptr, "end records with a NUL instead of a newline"}, set_flag<O, &O::null_end>},
    {{'o', "output", "FILE", "write to FILE instead of stdout; what it held is replaced\nwhen all watches are in place",
      kFiles},
     set_text<O, &O::output>},
    {{0, "append", nullptr, "with -o: go on behind what FILE holds"}, set_flag<O, &O::append>},
    {{'q', "quiet", nullptr, "no notes on stderr, only errors and losses"}, set_flag<O, &O::quiet>},
    {{0,
      "exec",
      "COMMAND",
      "run a shell command for each event, one at a time, with\nFMON_EVENTS, FMON_PATH and FMON_PID in its "
      "environment;\none that fails is told",
      {},
      "What happens then"},
     set_text<O, &O::exec>},
    {{'n', "count", "N", "end after N events"}, take::count},
    {{'t', "timeout", "S", "end with status 1 when nothing is shown for S seconds"}, take::timeout},
    {{'k', "keep-going", nullptr,
      "go on with the other paths when one cannot be watched, and with\na part of a tree when a limit is reached"},
     set_flag<O, &O::keep_going>},
    {{0, "set", "KEY=N",
      "a value of fmon.ini for this run: max_events, max_dentries,\ntbd_interval, rate_limit, rate_interval, "
      "rate_log,\nhardened, fs_directories, fs_memory, fs_memory_kib, fs_queue,\nfs_rest, fs_ignore",
      one_of(take::setting_words), "The monitor"},
     take::setting},
    {{0, "source", "HOW",
      "how directories are watched: marks (each has its own),\nfilesystem (one mark for a whole file system; root), or "
      "auto,\nfilesystem where it works",
      one_of("auto marks filesystem")},
     set_choice<O, &O::source>},
    {{0, "probes", "WHEN", "use kernel probes: auto, on or off", one_of("auto on off")}, set_choice<O, &O::probes>},
    {{0, "log", "WHERE", "the monitor's own log: file (default) or stderr", one_of("file stderr")},
     set_choice<O, &O::log_to_stderr>},
    {{0, "log-level", "N", "2 warnings, 3 information, 4 everything; default: 2", one_of("2 3 4")}, take::log_level},
    {{'v', "verbose", nullptr, "as --log stderr --log-level 4"}, take::verbose},
    {{'h', "help", nullptr, "this text"}, set_flag<O, &O::help>},
};

}  // namespace

std::span<const OptionRow<WatchOptions>> watch_rows() { return kRows; }

constinit const VerbOf<O> kWatch({"watch", "show what happens to files, and who did it", kHead, kTail, nullptr, kPaths},
                                 kRows, take::paths, run_watch);

}  // namespace cli
