#include "option_table.h"

#include "agent/event_names.h"

namespace cli
{

namespace
{

using O = WatchOptions;

bool output(O &o, const char *value, std::string &error) { return take::text(o.output, "--output", value, error); }

bool exec(O &o, const char *value, std::string &error) { return take::text(o.exec, "--exec", value, error); }

bool include(O &o, const char *value, std::string &)
{
    o.include.emplace_back(value);
    return true;
}

bool exclude(O &o, const char *value, std::string &)
{
    o.exclude.emplace_back(value);
    return true;
}

bool verbose(O &o, const char *, std::string &)
{
    o.log_level = 4;
    o.log_to_stderr = true;
    return true;
}

bool help(O &o, const char *, std::string &)
{
    o.answer = Answer::kHelp;
    return true;
}

}  // namespace

const OptionRow kOptionTable[kOptionRows] = {
    {'r', "recursive", nullptr, &O::recursive, nullptr,
     "with all directories below, new and renamed ones included;\nwithout it a directory is watched with its own "
     "entries",
     "What is watched"},
    {'e', "events", "LIST", nullptr, take::events,
     "kinds of events, separated by commas; -e help lists them.\nUsual: create,delete,modify,close_write,moved_from,"
     "moved_to,\nattrib,delete_self,move_self; with --mount modify,close_write",
     nullptr},
    {0, "pid", nullptr, &O::pid, nullptr,
     "insist that the process of every open, access, modify and\nclose is named (root); without it, it is where the "
     "kernel tells",
     nullptr},
    {0, "mount", nullptr, &O::mount, nullptr,
     "watch the mount of PATH with one mark instead of one for each\ndirectory; -r adds the mounts below PATH. Only "
     "open, access,\nmodify and the closes; root",
     nullptr},
    {0, "delay", nullptr, &O::delay, nullptr,
     "hold access and modify back until the file is closed and show\neach once; a close is shown only after one of "
     "them",
     nullptr},
    {0, "sync", nullptr, &O::sync, nullptr, "follow renamed and new directories (part of -r)", nullptr},
    {0, "wait", nullptr, &O::wait, nullptr, "PATH may be missing: wait for it, and again when it goes", nullptr},
    {0, "max-depth", "N", nullptr, take::max_depth, "with -r: directories down to N levels below PATH", nullptr},
    {0, "max-subdirs", "N", nullptr, take::max_subdirs, "with -r: refuse a PATH with more than N directories below it",
     nullptr},
    {0, "system", nullptr, &O::system, nullptr,
     "events of the whole system, without PATH: create, delete,\nmoved_from, moved_to, close_write (kernel-probe "
     "library; root)",
     nullptr},
    {0, "include", "REGEX", nullptr, include, "show only paths that match (extended, may be repeated)",
     "What is shown"},
    {0, "exclude", "REGEX", nullptr, exclude, "hide paths that match (extended, may be repeated)", nullptr},
    {'f', "format", "FORM", nullptr, take::format,
     "text, json (one object a line), csv, or a template: %e events,\n%p path, %P process id, %n process name, %t "
     "time, %% a percent\nsign, and the escapes \\n \\t \\\\ \\ooo \\xhh",
     nullptr},
    {'0', "null", nullptr, &O::null_end, nullptr, "end records with a NUL instead of a newline", nullptr},
    {'o', "output", "FILE", nullptr, output,
     "write to FILE instead of stdout; what it held is replaced\nwhen all watches are in place", nullptr},
    {0, "append", nullptr, &O::append, nullptr, "with -o: go on behind what FILE holds", nullptr},
    {'q', "quiet", nullptr, &O::quiet, nullptr, "no notes on stderr, only errors and losses", nullptr},
    {0, "exec", "COMMAND", nullptr, exec,
     "run a shell command for each event, one at a time, with\nFMON_EVENTS, FMON_PATH and FMON_PID in its "
     "environment;\none that fails is told",
     "What happens then"},
    {'n', "count", "N", nullptr, take::count, "end after N events", nullptr},
    {'t', "timeout", "S", nullptr, take::timeout, "end with status 1 when nothing is shown for S seconds", nullptr},
    {'k', "keep-going", nullptr, &O::keep_going, nullptr,
     "go on with the other paths when one cannot be watched, and with\na part of a tree when a limit is reached",
     nullptr},
    {0, "set", "KEY=N", nullptr, take::set,
     "a value of fmon.ini for this run: max_events, max_dentries,\ntbd_interval, rate_limit, rate_interval, "
     "rate_log,\nhardened",
     "The monitor"},
    {0, "probes", "WHEN", nullptr, take::probes, "use kernel probes: auto, on or off", nullptr},
    {0, "log", "WHERE", nullptr, take::log, "the monitor's own log: file (usual) or stderr", nullptr},
    {0, "log-level", "N", nullptr, take::log_level, "2 warnings, 3 information, 4 everything; usual: 2", nullptr},
    {'v', "verbose", nullptr, nullptr, verbose, "as --log stderr --log-level 4", nullptr},
    {'h', "help", nullptr, nullptr, help, "this text", nullptr},
};

}  // namespace cli
