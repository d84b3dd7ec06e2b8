/*
 * log.h: the module's way to the agent's log.
 *
 * FMON_LOG evaluates its arguments only when the line will be written, so that a line above the agent's level costs
 * one compare. Agents that do not export error_output_level get every line.
 * Levels: 1 error, 2 warning, 3 information, 4 debug.
 */
#ifndef FMON_LOG_H
#define FMON_LOG_H

#include "orx_base.h"

/* The agent may change its level while the monitor runs. */
inline bool log_enabled(int level)
{
    return !&error_output_level || level <= __atomic_load_n(&error_output_level, __ATOMIC_RELAXED);
}

/* `file` is the module's name with ".c", one constant per source, whatever the source file is called. */
#define FMON_LOG(level, file, ...)                                \
    do {                                                          \
        if (log_enabled(level))                                   \
            error_output((level), (file), __LINE__, __VA_ARGS__); \
    } while (0)

#endif
