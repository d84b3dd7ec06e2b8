/*
 * option_parser.h: reads the command line of any verb by its table.
 *
 * As getopt_long does: short options may be clustered and have their value behind them, long names may be cut short and
 * take "=VALUE", options and arguments may be mixed unless POSIXLY_CORRECT is set, and "--" ends the options.
 */
#ifndef CLI_FRONT_OPTION_PARSER_H
#define CLI_FRONT_OPTION_PARSER_H

#include <functional>
#include <string>
#include <vector>

#include "option.h"

namespace cli
{

/* How a wrong option is reported. */
enum class Wording {
    kFull,
    kShort, /* without what the value is, and no word on names that were cut too short */
};

struct CommandLine {
    const char *verb;
    Wording wording;
    int argc;
    char **argv; /* argv[0] is the verb; is sorted, arguments last */
};

/* What to do with an option, known by its place in the table. `value` is null for an option without one. */
using TakeOption = std::function<bool(size_t row, const char *value)>;

/* The place of the first argument in argv, 1 or more; 0 when `take` returned false, or with one line in `error`. Not
 * for two threads at a time. */
int parse_options(const CommandLine &line, const std::vector<Option> &options, const TakeOption &take,
                  std::string &error);

}  // namespace cli

#endif
