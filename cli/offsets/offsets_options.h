/*
 * offsets_options.h: the command line of `fmon offsets`, read into one structure.
 */
#ifndef CLI_OFFSETS_OPTIONS_H
#define CLI_OFFSETS_OPTIONS_H

#include <string>

namespace cli
{

struct OffsetsOptions {
    std::string file;    /* empty: the running kernel */
    std::string release; /* empty: the kernel's own */
    bool json = false, help = false;
};

/* Reads the arguments after the verb (argv[0] is the verb). False: `error` is one line for the user. */
bool parse_offsets(int argc, char **argv, OffsetsOptions &options, std::string &error);

std::string offsets_help();

}  // namespace cli

#endif
