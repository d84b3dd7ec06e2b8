/*
 * log_line.h: one log line as text.
 *
 * "2026-11-21T08:08:35.123456Z warning fmon.c:120 [4711] text\n". The result is one line of valid UTF-8 whatever the
 * text holds: what could end the line, move a terminal's cursor or change its direction is written as \n, \r, \t or
 * \xNN, and
 * "\" as "\\", so that a file name can neither forge a line nor pass for an escape.
 */
#ifndef HOST_LOG_LINE_H
#define HOST_LOG_LINE_H

#include <sys/types.h>

#include <ctime>
#include <string>
#include <string_view>

namespace host
{

/* Where a line comes from. */
struct LogOrigin {
    struct timespec time; /* of the real-time clock */
    int level;
    const char *file;
    int line;
    pid_t thread;
};

/* The line with its newline. Throws std::bad_alloc. */
std::string log_line(const LogOrigin &origin, std::string_view text);

/* Appends the text with unsafe bytes escaped. Throws std::bad_alloc. */
void append_escaped(std::string &out, std::string_view text);

}  // namespace host

#endif
