/*
 * parse.h: arguments of `fmon watch`, read as the command reads them.
 */
#ifndef UNIT_CLI_PARSE_H
#define UNIT_CLI_PARSE_H

#include <string>
#include <vector>

#include "cli/watch/options.h"

namespace cli_testing
{

struct Parsed {
    bool ok;
    cli::WatchOptions options;
    std::string error;
};

/* `fmon watch` with these arguments. */
inline Parsed parse(std::vector<std::string> arguments)
{
    Parsed parsed = {};
    std::vector<char *> argv = {const_cast<char *>("watch")};
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    const int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    parsed.ok = cli::parse_watch(argc, argv.data(), parsed.options, parsed.error);
    return parsed;
}

}  // namespace cli_testing

#endif
