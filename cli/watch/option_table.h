/*
 * option_table.h: the options of `fmon watch`, one row each: parsing, the help text and shell completion follow it.
 */
#ifndef CLI_OPTION_TABLE_H
#define CLI_OPTION_TABLE_H

#include <cstddef>
#include <string>

#include "options.h"

namespace cli
{

/* Either a flag to set or a function that takes the value (null for an option without one). */
struct OptionRow {
    char letter; /* 0: none */
    const char *name;
    const char *argument; /* null: takes no value */
    bool WatchOptions::*flag;
    bool (*take)(WatchOptions &, const char *value, std::string &error);
    const char *help;    /* "\n" begins a new line of the help text */
    const char *section; /* heading before this row, or null */
};

inline constexpr size_t kOptionRows = 27;
extern const OptionRow kOptionTable[kOptionRows];

/* What the rows do with their values: false with one line in `error`. */
namespace take
{

bool events(WatchOptions &o, const char *value, std::string &error);
bool max_depth(WatchOptions &o, const char *value, std::string &error);
bool max_subdirs(WatchOptions &o, const char *value, std::string &error);
bool format(WatchOptions &o, const char *value, std::string &error);
bool count(WatchOptions &o, const char *value, std::string &error);
bool timeout(WatchOptions &o, const char *value, std::string &error);
bool set(WatchOptions &o, const char *value, std::string &error);
bool probes(WatchOptions &o, const char *value, std::string &error);
bool log(WatchOptions &o, const char *value, std::string &error);
bool log_level(WatchOptions &o, const char *value, std::string &error);
bool text(std::string &out, const char *option, const char *value, std::string &error);

}  // namespace take

}  // namespace cli

#endif
