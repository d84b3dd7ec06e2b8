/*
 * config_page.h: the manual page of the service's configuration, made of the tables that its reader follows.
 */
#ifndef CLI_RUN_CONFIG_PAGE_H
#define CLI_RUN_CONFIG_PAGE_H

#include <string>

namespace cli
{

/* `frame`: the page in mdoc, with lines "@service@", "@fmon@", "@instance@", "@watch@", "@output@" and "@outputs@"
 * where the keys belong. Empty: one of them is missing. */
std::string config_page(const std::string &frame);

}  // namespace cli

#endif
