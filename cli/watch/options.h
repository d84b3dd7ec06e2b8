/*
 * options.h: the command line of `fmon watch`, read into one structure.
 */
#ifndef CLI_OPTIONS_H
#define CLI_OPTIONS_H

#include <string>

#include "agent/request.h"
#include "output/output_options.h"

namespace cli
{

enum class Answer { kNone, kHelp, kEventList }; /* something to print instead of watching */

struct WatchOptions : agent::Request, output::OutputOptions {
    Answer answer = Answer::kNone;
    bool all_events = false;
};

/* Reads the arguments after the verb (argv[0] is the verb). False: `error` is one line for the user. */
bool parse_watch(int argc, char **argv, WatchOptions &options, std::string &error);

/* `fmon watch --help` and the list that `-e help` prints. */
std::string watch_help();
std::string event_list();

}  // namespace cli

#endif
