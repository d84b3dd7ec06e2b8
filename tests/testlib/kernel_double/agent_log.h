/*
 * agent_log.h: the two things of an agent that the library and the monitor's texts use; its log is kept for the test.
 */
#ifndef TESTLIB_AGENT_LOG_H
#define TESTLIB_AGENT_LOG_H

#include <string>
#include <vector>

namespace testlib
{

/* The lines since the last call, "LEVEL TEXT" each. */
std::vector<std::string> take_log();
/* Whether one of these lines has the text in it. */
bool has_line(const std::vector<std::string> &list, const std::string &text);

}  // namespace testlib

#endif
