/*
 * offsets_options.h: the command line of `fmon offsets`, read into one structure.
 */
#ifndef CLI_OFFSETS_OPTIONS_H
#define CLI_OFFSETS_OPTIONS_H

#include <string>

#include "cli/front/verb.h"

namespace cli
{

struct OffsetsOptions {
    std::string file;    /* empty: the running kernel */
    std::string release; /* empty: the kernel's own */
    bool json = false, help = false;
};

extern const VerbOf<OffsetsOptions> kOffsets;

int run_offsets(const OffsetsOptions &options);

}  // namespace cli

#endif
