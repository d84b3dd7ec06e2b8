/*
 * filter_options.h: which events are wanted, by path and by who caused them, as texts of whoever asks.
 */
#ifndef OUTPUT_FILTER_OPTIONS_H
#define OUTPUT_FILTER_OPTIONS_H

#include <string>
#include <vector>

namespace output
{

/* Of processes, users and containers a "!" in front excludes; the others include, where there are any. */
struct FilterOptions {
    std::vector<std::string> include, exclude;                   /* regular expressions on the path */
    std::vector<std::string> include_any_case, exclude_any_case; /* likewise, for upper and lower case alike */
    std::vector<std::string> processes;   /* name, or program with its path, each a pattern of the shell's */
    std::vector<std::string> process_ids; /* number */
    std::vector<std::string> users;       /* name or number */
    /* id (12 characters or more of its beginning), or name or image, each a pattern of the shell's; "host": none */
    std::vector<std::string> containers;

    bool operator==(const FilterOptions &) const = default;
};

}  // namespace output

#endif
