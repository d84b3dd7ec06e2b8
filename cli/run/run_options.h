/*
 * run_options.h: the command line of `fmon run`, read into one structure.
 */
#ifndef CLI_RUN_RUN_OPTIONS_H
#define CLI_RUN_RUN_OPTIONS_H

#include <string>

#include "cli/front/verb.h"
#include "config_file.h"

namespace cli
{

struct RunOptions {
    std::string config = kConfigFile;
    bool check = false, help = false;
};

extern const VerbOf<RunOptions> kRun;

int run_service(const RunOptions &options);

}  // namespace cli

#endif
