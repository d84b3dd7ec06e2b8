/*
 * agent_library.h: functions of the agent's libraries, which the module looks for at run time and does without where
 * they are missing.
 */
#ifndef FMON_AGENT_LIBRARY_H
#define FMON_AGENT_LIBRARY_H

#include <atomic>

enum { AGENT_LIBRARY_ENTRIES = 2 };

/* One library as one source of ours uses it: a static object with its texts given. */
struct agent_library {
    const char *path;     /* as dll_open takes it */
    const char *log_file; /* the source that the log lines name */
    const char *module;   /* the library and the entry, as the log lines call them */
    const char *symbol;
    const char *names[AGENT_LIBRARY_ENTRIES]; /* the functions used, all of them needed; unused rows null */

    /* Filled on the first use that finds the library and every function, and kept for the life of the process. */
    std::atomic<void *> entries[AGENT_LIBRARY_ENTRIES];
    std::atomic<void *> handle;
};

/* The function named `names[index]`. Null: the library cannot be opened or lacks a function, which is logged at
 * level 1; the next call tries again. Any thread. */
void *agent_library_entry(struct agent_library *library, int index);

#endif
