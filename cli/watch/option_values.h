/*
 * option_values.h: what the options of `fmon watch` do with their values where the common ways (cli/front/option.h) do
 * not serve: false with one line in `error`.
 */
#ifndef CLI_OPTION_VALUES_H
#define CLI_OPTION_VALUES_H

#include <string>

#include "options.h"

namespace cli::take
{

bool events(WatchOptions &options, const Given &given, std::string &error);
bool fromfile(WatchOptions &options, const Given &given, std::string &error);
bool format(WatchOptions &options, const Given &given, std::string &error);
bool time_format(WatchOptions &options, const Given &given, std::string &error);
bool count(WatchOptions &options, const Given &given, std::string &error);
bool timeout(WatchOptions &options, const Given &given, std::string &error);
bool setting(WatchOptions &options, const Given &given, std::string &error);
bool log_level(WatchOptions &options, const Given &given, std::string &error);
bool verbose(WatchOptions &options, const Given &given, std::string &error);

/* What is left of the command line, and what in the whole of it contradicts itself. */
bool paths(WatchOptions &options, VerbOf<WatchOptions>::Arguments arguments, std::string &error);

/* The keys of --set, each with "=" behind it. */
std::string setting_words();

}  // namespace cli::take

#endif
