/*
 * path_list.h: paths that stand in a file, one a line.
 */
#ifndef CLI_PATH_LIST_H
#define CLI_PATH_LIST_H

#include <string>
#include <vector>

namespace cli
{

/* Appends the lines of a file, or of the standard input ("-") up to its end, to `paths`; empty lines are passed over. A
 * line ends in "\n", the last one may lack that. False: `error` is one line. */
bool read_path_list(const std::string &file, std::vector<std::string> &paths, std::string &error);

}  // namespace cli

#endif
