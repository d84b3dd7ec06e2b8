/*
 * fmon_shell.h: the plug-in shell: entry, configuration, the monitor thread and the exported client functions, which
 * are declared in orx_fmon.h. The shell's one mutex, the monitor lock, serialises every call into the core.
 *
 * Sources: fmon_shell.cpp (entry, configuration), fmon_thread.cpp (monitor thread), fmon_export.cpp (client
 * functions), container_detect.cpp (host or container).
 */
#ifndef FMON_FMON_SHELL_H
#define FMON_FMON_SHELL_H

#include <cstdint>

#include "orx_fmon.h"

enum fmon_run_state { FMON_STOPPED = 0, FMON_RUNNING = 1, FMON_DISABLED = -1 };

/* A client: an instance and its callback. Written under the lock; `next_call` by the monitor thread only. */
struct shell_row {
    int32_t id;
    fmon_client_cb cb;
    uint32_t next_call; /* ms: not before this time; 0: any time */
};

/* What the shell's sources share. */
struct fmon_shell {
    int32_t run_state;
    int32_t max_events, max_dentries, tbd_interval;
    uint32_t rate_limit, rate_interval, rate_log;
    void *lock; /* null: none yet, or no more */
    int32_t row_count;
    struct shell_row rows[FMON_MAX_INSTANCES];
};
extern struct fmon_shell fmon_shell;

/* Take and release the monitor lock; nothing while there is none. */
void shell_lock(void);
void shell_unlock(void);

/* The monitor thread's body; returns 0 when select failed for good. */
int fmon_thread(void *unused);

/* One turn's delivery of queued events to the clients, at time `now` (ms), under the lock. */
void shell_deliver(uint32_t now);

/* 1 inside a container, 0 on a host or when in doubt. */
int container_detect(void);

#endif
