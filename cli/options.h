/*
 * options.h: the command line of `fmon watch`, read into one structure.
 */
#ifndef CLI_OPTIONS_H
#define CLI_OPTIONS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace cli
{

enum class Form { kText, kJson, kCsv, kTemplate };
enum class Probes { kAuto, kOn, kOff };
enum class Answer { kNone, kHelp, kEventList }; /* something to print instead of watching */

struct WatchOptions {
    std::vector<std::string> paths;
    Answer answer = Answer::kNone;

    uint32_t events = 0; /* 0: what is usual for the kind of watch */
    bool all_events = false;
    bool recursive = false, mount = false, pid = false, delay = false, sync = false, wait = false, system = false;
    uint32_t max_depth = 0;   /* 0: no limit */
    uint32_t max_subdirs = 0; /* 0: no limit */
    std::vector<std::string> include, exclude;

    Form form = Form::kText;
    std::string pattern; /* of kTemplate */
    bool null_end = false, quiet = false;
    std::string output; /* empty: stdout */
    bool append = false;
    std::string exec;
    uint64_t count = 0;      /* 0: no limit */
    uint64_t timeout_ms = 0; /* 0: none */

    bool keep_going = false;
    std::vector<std::pair<std::string, std::string>> settings; /* keys of fmon.ini */
    Probes probes = Probes::kAuto;
    int log_level = -1; /* -1: as it is */
    bool log_to_stderr = false;
};

/* Reads the arguments after the verb (argv[0] is the verb). False: `error` is one line for the user. */
bool parse_watch(int argc, char **argv, WatchOptions &options, std::string &error);

/* `fmon watch --help` and the list that `-e help` prints. */
std::string watch_help();
std::string event_list();

/* A key of fmon.ini that --set knows. */
struct Setting {
    const char *name;
    uint32_t low, high;
    const char *usual; /* what `watch` sets without being told; null: what fmon.ini says */
};
inline constexpr size_t kSettings = 7;
extern const Setting kSettingTable[kSettings];

}  // namespace cli

#endif
