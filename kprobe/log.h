/*
 * log.h: the library's way to the agent's log, where the process has one.
 */
#ifndef KPROBE_LOG_H
#define KPROBE_LOG_H

namespace kprobe
{

// Levels as the agent's: 1 error, 2 warning, 3 information.
void log_line(int level, int line, const char *format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace kprobe

#define KP_LOG(level, ...) ::kprobe::log_line((level), __LINE__, __VA_ARGS__)

#endif
