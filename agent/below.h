/*
 * below.h: which path lies below which, by their text alone.
 */
#ifndef AGENT_BELOW_H
#define AGENT_BELOW_H

#include <string_view>

namespace agent
{

/* How many directories below `root` the directory of `path` lies: 0 for root itself and its entries; -1 when not below
 * it. */
int directory_depth(std::string_view root, std::string_view path);

/* Whether `path` is `root` or lies below it. */
bool is_below(std::string_view root, std::string_view path);

}  // namespace agent

#endif
