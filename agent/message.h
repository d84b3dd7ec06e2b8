/*
 * message.h: what the command says to a person: one line each, on stderr, as it was when the command started.
 */
#ifndef AGENT_MESSAGE_H
#define AGENT_MESSAGE_H

#include <cstdint>
#include <string>

namespace agent
{

/* Exit statuses of every verb; kGone: nothing that was watched is left. */
enum : int { kDone = 0, kNothing = 1, kError = 2, kGone = 3 };

/* "fmon: text": something is wrong, and what to do about it. Control characters are escaped. */
void complain(const std::string &text);

/* From now on "fmon: NAME: text" is what this thread's complaints are; empty: as before. */
void set_complainer(const std::string &name);

/* Text as it is, for progress and log lines. */
void say(const std::string &text);

bool stderr_is_terminal();
bool stderr_is_read(); /* or at least has room */

/* From now on the process's descriptor 2 leads nowhere; complain() and say() go on reaching the old one. */
void detach_stderr();

/* From now on an exception that nobody catches, on whichever thread and in whichever callback, ends the process with a
 * sentence: want of memory, which is nobody's fault, with kError; anything else with abort() as before. */
void end_in_a_sentence();

std::string with_commas(uint64_t number);                      /* 1234567 -> 1,234,567 */
std::string counted(uint64_t number, const std::string &what); /* "1 directory", "2 directories", "0 watches" */

}  // namespace agent

#endif
