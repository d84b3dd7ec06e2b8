/*
 * verbs.h: the verbs of `fmon`, and `fmon` itself.
 */
#ifndef CLI_FRONT_VERBS_H
#define CLI_FRONT_VERBS_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "verb.h"

namespace cli
{

/* In the order of the help text. */
std::span<const Verb *const> verbs();
const Verb *find_verb(std::string_view name);

/* `fmon --help`, and the options that `fmon` has without a verb. */
std::string main_help();
std::vector<Option> main_options();

/* `fmon` with its arguments. Returns the exit status. */
int run_command(int argc, char **argv);

}  // namespace cli

#endif
