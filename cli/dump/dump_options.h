/*
 * dump_options.h: the command line of `fmon dump`, read into one structure.
 */
#ifndef CLI_DUMP_OPTIONS_H
#define CLI_DUMP_OPTIONS_H

#include <sys/types.h>

#include "agent/dump_protocol.h"
#include "cli/front/verb.h"

namespace cli
{

struct DumpOptions {
    agent::DumpRequest request;
    pid_t pid = 0; /* 0: the only one that runs */
    bool help = false;
};

extern const VerbOf<DumpOptions> kDump;

int run_dump(const DumpOptions &options);

}  // namespace cli

#endif
