/*
 * dump_options.h: the command line of `fmon dump`, read into one structure.
 */
#ifndef CLI_DUMP_OPTIONS_H
#define CLI_DUMP_OPTIONS_H

#include <sys/types.h>

#include <string>

#include "agent/dump_protocol.h"

namespace cli
{

struct DumpOptions {
    agent::DumpRequest request;
    pid_t pid = 0; /* 0: the only one that runs */
    bool help = false;
};

/* Reads the arguments after the verb (argv[0] is the verb). False: `error` is one line for the user. */
bool parse_dump(int argc, char **argv, DumpOptions &options, std::string &error);

std::string dump_help();

}  // namespace cli

#endif
