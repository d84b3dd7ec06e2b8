/*
 * verbs.h: the verbs of `fmon`, one row each.
 */
#ifndef CLI_FRONT_VERBS_H
#define CLI_FRONT_VERBS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace cli
{

struct Verb {
    const char *name;
    const char *meaning;               /* for the help text */
    int (*run)(int argc, char **argv); /* argv[0] is the verb; returns the exit status */
};

inline constexpr size_t kVerbs = 4;
extern const Verb kVerbTable[kVerbs];

const Verb *find_verb(std::string_view name);
std::string main_help();

/* `fmon` with its arguments. */
int run_command(int argc, char **argv);

int run_watch(int argc, char **argv);
int run_dump(int argc, char **argv);
int run_doctor(int argc, char **argv);
int run_offsets(int argc, char **argv);

}  // namespace cli

#endif
