/*
 * fmon_shell.h: the plug-in shell: entry, configuration, the monitor thread and the exported client functions, which
 * are declared in orx_fmon.h. The shell's one mutex, the monitor lock, serialises every call into the core.
 *
 * Sources: fmon_shell.cpp (entry, configuration), fmon_lock.cpp (lock), fmon_thread.cpp (monitor thread),
 * fmon_export.cpp (client functions; the one of the state is in fmon_status.cpp), container_detect.cpp (host or
 * container).
 */
#ifndef FMON_FMON_SHELL_H
#define FMON_FMON_SHELL_H

#include <atomic>
#include <cstdint>

#include "orx_fmon.h"

enum fmon_run_state { FMON_STOPPED = 0, FMON_RUNNING = 1, FMON_DISABLED = -1 };

/* A client: an instance and its callback. Written under the lock; `next_call` by the monitor thread only. */
struct shell_row {
    int32_t id;
    fmon_client_cb cb;
    uint32_t next_call; /* ms: not before this time; 0: any time */
};

/* What the shell's sources share. Run state and lock are atomic: the monitor thread's end and an agent's new start meet
 * there, and clients look for the lock at any time. */
struct fmon_shell {
    std::atomic<int32_t> run_state;
    int32_t max_events, max_dentries, tbd_interval;
    uint32_t rate_limit, rate_interval, rate_log;
    uint32_t hardened; /* handed to the core at the start, with the next four */
    uint32_t fs_events, fs_memory_kib, fs_queue, fs_ignore;
    int32_t fs_directories, fs_memory, fs_rest; /* entries, MiB, ms */
    std::atomic<void *> lock;                   /* null: none yet, or no more */
    std::atomic<bool> closed;                   /* calls are turned away */
    std::atomic<uint32_t> inside;               /* calls under way */
    int32_t row_count;
    struct shell_row rows[FMON_MAX_INSTANCES];
};
extern struct fmon_shell fmon_shell;

/* A call into the core. Holds the monitor lock while it lives; nothing while there is none, the core then answers that
 * it is not started. False: the core is being made or taken down, it must not be called. */
class ShellLock
{
public:
    ShellLock();
    ~ShellLock();
    ShellLock(const ShellLock &) = delete;
    ShellLock &operator=(const ShellLock &) = delete;
    explicit operator bool() const { return open_; }

private:
    bool open_;
    void *held_; /* what was locked: a start or stop in between replaces the shell's */
};

/* While it lives, calls are turned away; those that were inside have returned when the constructor does. */
class ShellClosed
{
public:
    ShellClosed();
    ~ShellClosed();
    ShellClosed(const ShellClosed &) = delete;
    ShellClosed &operator=(const ShellClosed &) = delete;
};

/* Holds the table's rows while it lives, for clients' calls that change them: some do so without the monitor lock,
 * while others that came before the gate was closed still have it. True: calls are turned away. */
class ShellRows
{
public:
    ShellRows();
    ~ShellRows();
    ShellRows(const ShellRows &) = delete;
    ShellRows &operator=(const ShellRows &) = delete;
    explicit operator bool() const { return closed_; }

private:
    bool closed_;
};

/* Takes the monitor lock away and destroys it, if it exists. Who holds it finishes first; nobody may be waiting. */
void shell_lock_destroy(void);

/* The monitor thread's body; returns 0 when select failed for good. */
int fmon_thread(void *unused);

/* One turn's delivery of queued events to the clients, at time `now` (ms), under the lock. */
void shell_deliver(uint32_t now);

/* 1 inside a container, 0 on a host or when in doubt. */
int container_detect(void);

#endif
