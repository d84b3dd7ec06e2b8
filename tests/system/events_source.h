/*
 * events_source.h: which source of events this run of the tests is for: FMON_TEST_EVENTS in the environment, a value of
 * the command's --source (tests/README.md).
 */
#ifndef SYSTEM_EVENTS_SOURCE_H
#define SYSTEM_EVENTS_SOURCE_H

#include <string>
#include <vector>

namespace systest
{

/* Whether directories are watched by events of whole file systems, and not by marks on each. */
bool by_filesystem();

/* Adds --source to a command that watches and does not say it. */
void add_source(std::vector<std::string> &argv);

}  // namespace systest

#endif
